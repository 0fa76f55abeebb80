#pragma once

#include <poll.h>

#include <span>
#include <vector>

#include "collectors/common/RingReader.h"
#include "collectors/kernel/EventSource.h"

namespace vnt {

/// What all processes of the machine map, exec, start and end, on a ring of its own for each processor. Open before the
/// first event, so that no process begins unseen.
class ProcessRings {
public:
    /// Errors carry the advice of perf::explain().
    static Result<ProcessRings> open(const std::vector<int>& processors);

    void drain(EventSourceHandler& handler);
    void appendPollFds(std::vector<struct pollfd>& fds) const;

private:
    struct Ring {
        UniqueFd event;
        RingReader reader;
    };
    std::vector<Ring> _rings;
};

/// Opens the ring that `event` owns. Errors as above.
Result<RingReader> openTraceRing(int event, size_t bytes);
/// Refusals with the command that would allow it.
Status explainTraceRefusal(const Status& refusal);
/// Passes on a count that the kernel wrote into a ring; true when the record was one.
bool reportLostRecord(const perf_event_header& header, std::span<const std::byte> payload, EventSourceHandler& handler);

} // namespace vnt
