#pragma once

#include <linux/perf_event.h>
#include <poll.h>

#include <chrono>
#include <memory>
#include <span>
#include <vector>

#include "collectors/kernel/KernelTracer.h"
#include "collectors/kernel/Tracepoint.h"
#include "records/TraceRecords.h"

namespace vnt {

/// One event as the kernel wrote it. Valid during the call.
struct RawEvent {
    uint64_t timeNs = 0; ///< CLOCK_MONOTONIC
    uint32_t cpu = 0;
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint32_t tracepoint = 0; ///< index into the tracepoints
    /// Laid out as TracepointFormat says; packed: the values as 64-bit words, of a system call behind its number.
    std::span<const std::byte> record;
    bool isPacked = false;
    std::string_view text; ///< of a packed record; in others it stands in the record
    std::span<const uint64_t> chain; ///< innermost frame first, PERF_CONTEXT_* markers among the addresses
};

/// Takes what an EventSource reads.
class EventSourceHandler {
public:
    virtual ~EventSourceHandler() = default;
    virtual void onEvent(const RawEvent& event) = 0;
    /// Mapping, name, fork and exit records of all processes, with the trailer of kProcessTrailerBytes.
    virtual void onProcessRecord(const perf_event_header& header, std::span<const std::byte> payload) = 0;
    virtual void onLost(trace::LostCause cause, uint64_t count) = 0;
};

/// The kernel objects that events come out of: perf events, or a BPF program. Opened by the control thread, drained by
/// the reader thread; enabling and disabling may come from the control thread at any time.
class EventSource {
public:
    virtual ~EventSource() = default;
    virtual Status enable() = 0;
    virtual Status disable() = 0;
    /// Passes on what was written before the call, process records first: a process's beginning is told before its
    /// first event.
    virtual void drain(EventSourceHandler& handler) = 0;
    /// For poll(2): readable when draining is due before drainInterval() is over.
    virtual void appendPollFds(std::vector<struct pollfd>& fds) const = 0;
    [[nodiscard]] virtual std::chrono::milliseconds drainInterval() const = 0;
    /// True: only events of the process and its children come out.
    [[nodiscard]] virtual bool isFiltered() const = 0;
};

/// Frames asked for: the options' number, what the kernel allows, at least one.
uint32_t traceFramesAsked(const KernelTracerOptions& options);

Result<std::unique_ptr<EventSource>> openPerfSource(const KernelTracerOptions& options,
                                                    const std::vector<Tracepoint>& tracepoints);
/// By BPF programs that pick the events. Errors: refusals as the kernel gave them; perf events may still be allowed.
/// `tracepoints` outlives the source.
Result<std::unique_ptr<EventSource>> openProgramSource(const KernelTracerOptions& options, const TraceFs& files,
                                                       const std::vector<Tracepoint>& tracepoints);

} // namespace vnt
