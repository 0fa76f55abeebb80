#pragma once

#include <unordered_map>

#include "bundle/exports/KernelSpans.h"
#include "bundle/exports/PerfettoTracks.h"

namespace vnt {

/// Kernel events on the tracks of their threads: spans, instants, and the states of threads. One thread.
class PerfettoKernel {
public:
    /// The references outlive this.
    PerfettoKernel(PerfettoSequence& events, PerfettoSequence& states, PerfettoTracks& tracks)
        : _events(events),
          _states(states),
          _tracks(tracks)
    {
    }
    void add(const ExportKernelEvent& event);
    /// Ends what is open.
    void finish();

private:
    struct Nothing { };
    using Spans = KernelSpans<Nothing>;
    struct Task {
        uint32_t state = 0; ///< the latest written; 0: none
        std::string name;
    };

    void begin(const ExportKernelEvent& event, uint64_t track, uint32_t group);
    void end(const ExportKernelEvent& event, uint64_t track, uint32_t group);
    void instant(const ExportKernelEvent& event, uint64_t track);
    void endSpans(std::vector<Spans::Span>& spans, size_t kept, uint64_t track, uint64_t timeNs);
    static void addValues(PerfettoEvent& made, const TraceEvent& event);
    void addStates(const TraceEvent& event);
    void setState(uint32_t tid, uint32_t state, uint64_t timeNs, uint32_t cpu);

    PerfettoSequence& _events;
    PerfettoSequence& _states;
    PerfettoTracks& _tracks;
    Spans _spans;
    std::unordered_map<uint32_t, Task> _tasks; ///< of the target, by tid
    uint64_t _lastNs = 0;
};

} // namespace vnt
