#pragma once

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Symbolizer.h"
#include "bundle/TraceReader.h"

namespace vnt {

/// A count of spans of time.
struct TraceSpans {
    uint64_t count = 0;
    uint64_t totalNs = 0;
    uint64_t longestNs = 0;

    void add(uint64_t ns)
    {
        ++count;
        totalNs += ns;
        longestNs = ns > longestNs ? ns : longestNs;
    }
    [[nodiscard]] uint64_t meanNs() const { return count == 0 ? 0 : totalNs / count; }
};

/// One system call over the whole recording.
struct TraceCall {
    std::string name;
    uint64_t entered = 0;
    uint64_t failed = 0; ///< returned an error number
    TraceSpans spans; ///< of those whose entry and return were both recorded
};

struct TraceThread {
    uint32_t pid = 0;
    uint32_t tid = 0;
    std::string name; ///< the latest one
    uint64_t events = 0;
    uint64_t voluntarySwitches = 0; ///< it had to wait
    uint64_t involuntarySwitches = 0; ///< it could have gone on
    TraceSpans offProcessor;
    TraceSpans wakeups; ///< from being woken to running
};

/// Where threads left the processor.
struct TraceOffStack {
    uint32_t pid = 0;
    uint64_t timeNs = 0; ///< of one of them, for symbolizing
    std::vector<uint64_t> frames; ///< innermost first
    bool isWhole = true; ///< the outer frames are there
    TraceSpans spans;
};

/// What a recording of kernel events comes to. Memory grows with what is distinct in it: event types, system calls,
/// threads and stacks, each bounded.
struct TraceSummary {
    TraceTotals totals;
    MessageTotals messages;
    std::map<std::string, uint64_t> byName; ///< events of the target by the tracepoint's name
    std::map<std::string, uint64_t> outsideByName; ///< events of other threads about one of the target's
    std::vector<TraceCall> calls; ///< most time first
    std::vector<TraceThread> threads; ///< of the target, most events first
    std::vector<TraceOffStack> offStacks; ///< most time first
    std::map<uint64_t, uint64_t> signals; ///< delivered, by number
    uint64_t voluntarySwitches = 0;
    uint64_t involuntarySwitches = 0;
    TraceSpans offProcessor; ///< from leaving a processor to the next time on one
    uint64_t unseenReturns = 0; ///< of those: ended by a switch that is missing, counted up to the thread's next event
    TraceSpans wakeups; ///< from being woken to running
    TraceSpans lockWaits; ///< for locks within the kernel

    [[nodiscard]] uint64_t events() const;
    [[nodiscard]] uint64_t outsideEvents() const;
};

/// Reads the events of a bundle's Kernel Tracer that happened in `span`. Time is linear in the events; fork records go
/// to `symbolizer`. Never fails: what cannot be read is missing and told in the bundle's remarks.
[[nodiscard]] TraceSummary summarizeTrace(const Bundle& bundle, const InstrumentData& data, Symbolizer& symbolizer,
                                          const TimeSpan& span = {});

} // namespace vnt
