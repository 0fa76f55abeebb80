#include "collectors/kernel/ProcessRings.h"

#include <cerrno>

#include "collectors/common/perf.h"
#include "collectors/kernel/TracePlan.h"
#include "platform/base/ByteCursor.h"

namespace vnt {

Status explainTraceRefusal(const Status& refusal)
{
    if (refusal.code() == Code::kDenied)
        return Status(Code::kDenied,
                      "kernel events are for root only; run: sudo rumbel record -i kerneltracer ... ("
                          + refusal.message() + ")",
                      refusal.errnoValue());
    return perf::explain(refusal, perf::Purpose::kWholeMachine, perf::kernelSetting("perf_event_paranoid", 2));
}

Result<RingReader> openTraceRing(int event, size_t bytes)
{
    auto mapping = perf::mapRing(event, bytes);
    if (!mapping.ok())
        return perf::explain(mapping.status(), perf::Purpose::kRing, 0);
    return RingReader::create(mapping.take());
}

bool reportLostRecord(const perf_event_header& header, std::span<const std::byte> payload, EventSourceHandler& handler)
{
    if (header.type != PERF_RECORD_LOST && header.type != PERF_RECORD_LOST_SAMPLES)
        return false;
    ByteCursor cursor(payload);
    if (header.type == PERF_RECORD_LOST)
        cursor.little<uint64_t>(); // id of the event
    handler.onLost(trace::LostCause::kRingFull, cursor.little<uint64_t>());
    return true;
}

Result<ProcessRings> ProcessRings::open(const std::vector<int>& processors)
{
    ProcessRings rings;
    bool buildIds = true;
    for (const int cpu : processors) {
        auto event = perf::openEvent(processRingAttributes(kProcessRingBytes / 4, buildIds), -1, cpu);
        if (!event.ok() && event.status().errnoValue() == EINVAL && buildIds) {
            buildIds = false; // before 5.12
            event = perf::openEvent(processRingAttributes(kProcessRingBytes / 4, buildIds), -1, cpu);
        }
        if (!event.ok() && event.status().errnoValue() == ENODEV)
            continue; // went offline meanwhile
        if (!event.ok())
            return explainTraceRefusal(event.status());
        ASSIGN_OR_RETURN(RingReader reader, openTraceRing(event.value().get(), kProcessRingBytes));
        rings._rings.push_back({event.take(), std::move(reader)});
    }
    return rings;
}

void ProcessRings::drain(EventSourceHandler& handler)
{
    for (Ring& ring : _rings) {
        if (ring.reader.dead())
            continue;
        const Status status =
            ring.reader.drain([&](const perf_event_header& header, std::span<const std::byte> payload) {
                if (!reportLostRecord(header, payload, handler))
                    handler.onProcessRecord(header, payload);
            });
        if (!status.ok())
            handler.onLost(trace::LostCause::kMalformed, 1);
    }
}

void ProcessRings::appendPollFds(std::vector<struct pollfd>& fds) const
{
    for (const Ring& ring : _rings)
        fds.push_back({ring.event.get(), POLLIN, 0});
}

} // namespace vnt
