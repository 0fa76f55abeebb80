#include <algorithm>
#include <cerrno>
#include <unordered_map>

#include "collectors/common/perf.h"
#include "collectors/kernel/EventSource.h"
#include "collectors/kernel/ProcessRings.h"
#include "collectors/kernel/TracePlan.h"
#include "platform/base/ByteCursor.h"
#include "platform/base/sys.h"
#include "records/StackRecords.h"

namespace vnt {
namespace {

constexpr size_t kMaxChain = stacks::kMaxDepth + 16; // frames and context markers
constexpr std::chrono::milliseconds kDrainInterval{100};

/// Tracepoints as perf events on every processor. The kernel offers no filter by process that leaves other users of the
/// same tracepoint alone (a program on a perf event decides for all of them), so the whole machine's events come out,
/// and the reader keeps what concerns the target.
class PerfSource final : public EventSource {
public:
    PerfSource(ProcessRings processes, bool hasChains) : _processes(std::move(processes)), _hasChains(hasChains) { }

    Status open(const KernelTracerOptions& options, const std::vector<Tracepoint>& tracepoints,
                const std::vector<int>& processors);
    Status enable() override { return forEachEvent(perf::enable); }
    Status disable() override { return forEachEvent(perf::disable); }
    void drain(EventSourceHandler& handler) override;
    void appendPollFds(std::vector<struct pollfd>& fds) const override;
    [[nodiscard]] std::chrono::milliseconds drainInterval() const override { return kDrainInterval; }
    [[nodiscard]] bool isFiltered() const override { return false; }

private:
    struct Processor {
        uint32_t cpu = 0;
        UniqueFd ringEvent;
        std::unique_ptr<RingReader> ring;
        std::vector<UniqueFd> events;
        uint64_t until = 0; ///< how far this pass reads
    };
    Status openProcessor(const KernelTracerOptions& options, const std::vector<Tracepoint>& tracepoints,
                         size_t ringBytes, Processor& processor);
    template <typename Function> Status forEachEvent(Function function);
    void onSample(const Processor& processor, ByteCursor cursor, EventSourceHandler& handler);
    void readLost(EventSourceHandler& handler);

    ProcessRings _processes;
    const bool _hasChains;
    std::vector<Processor> _processors;
    std::unordered_map<uint64_t, uint32_t> _tracepoints; ///< by event id
    bool _countsLost = true; ///< events tell what they lost; false where the kernel cannot
    uint64_t _lostTold = 0;
    uint64_t _latestId = 0;
    uint32_t _latestTracepoint = 0;
    std::vector<uint64_t> _chain;
};

Status PerfSource::open(const KernelTracerOptions& options, const std::vector<Tracepoint>& tracepoints,
                        const std::vector<int>& processors)
{
    const size_t ringBytes = eventRingBytes(options, processors.size());
    for (const int cpu : processors) {
        Processor processor;
        processor.cpu = static_cast<uint32_t>(cpu);
        const Status status = openProcessor(options, tracepoints, ringBytes, processor);
        if (status.errnoValue() == ENODEV)
            continue; // went offline meanwhile
        RETURN_IF_ERROR(status);
        _processors.push_back(std::move(processor));
    }
    return {};
}

Status PerfSource::openProcessor(const KernelTracerOptions& options, const std::vector<Tracepoint>& tracepoints,
                                 size_t ringBytes, Processor& processor)
{
    const auto cpu = static_cast<int>(processor.cpu);
    auto ringEvent = perf::openEvent(eventRingAttributes(ringBytes / 8), -1, cpu);
    if (!ringEvent.ok())
        return explainTraceRefusal(ringEvent.status());
    processor.ringEvent = ringEvent.take();
    ASSIGN_OR_RETURN(RingReader ring, openTraceRing(processor.ringEvent.get(), ringBytes));
    processor.ring = std::make_unique<RingReader>(std::move(ring));
    for (uint32_t i = 0; i < tracepoints.size(); ++i) {
        const auto open = [&] {
            return perf::openEvent(
                tracepointAttributes(options, tracepoints[i].format.id, traceFramesAsked(options), _countsLost), -1,
                cpu, processor.ringEvent.get());
        };
        auto event = open();
        if (!event.ok() && event.status().errnoValue() == EINVAL && _countsLost) {
            _countsLost = false;
            event = open();
        }
        if (!event.ok())
            return explainTraceRefusal(event.status());
        ASSIGN_OR_RETURN(const uint64_t id, perf::eventId(event.value().get()));
        _tracepoints.emplace(id, i);
        processor.events.push_back(event.take());
    }
    return {};
}

template <typename Function> Status PerfSource::forEachEvent(Function function)
{
    for (const Processor& processor : _processors) {
        for (const UniqueFd& event : processor.events)
            RETURN_IF_ERROR(function(event.get()));
    }
    return {};
}

void PerfSource::drain(EventSourceHandler& handler)
{
    // The kernel writes a task's fork record before the task runs: what stands in the rings now was done by tasks whose
    // records can be read now.
    for (Processor& processor : _processors)
        processor.until = processor.ring->written();
    _processes.drain(handler);
    for (Processor& processor : _processors) {
        if (processor.ring->dead())
            continue;
        const Status status = processor.ring->drain(
            [&](const perf_event_header& header, std::span<const std::byte> payload) {
                if (header.type == PERF_RECORD_SAMPLE)
                    onSample(processor, ByteCursor(payload), handler);
                else if (!_countsLost)
                    reportLostRecord(header, payload, handler);
            },
            processor.until);
        if (!status.ok())
            handler.onLost(trace::LostCause::kMalformed, 1);
    }
    if (_countsLost)
        readLost(handler);
}

/// Some 0.3 microseconds for each tracepoint and processor.
void PerfSource::readLost(EventSourceHandler& handler)
{
    uint64_t lost = 0;
    for (const Processor& processor : _processors) {
        for (const UniqueFd& event : processor.events) {
            uint64_t counts[2] = {}; // occurrences, and those that were lost
            if (sys::readFully(event.get(), counts, sizeof counts).ok())
                lost += counts[1];
        }
    }
    if (lost > _lostTold)
        handler.onLost(trace::LostCause::kRingFull, lost - _lostTold);
    _lostTold = std::max(_lostTold, lost);
}

void PerfSource::onSample(const Processor& processor, ByteCursor cursor, EventSourceHandler& handler)
{
    RawEvent event;
    const auto id = cursor.little<uint64_t>();
    event.cpu = processor.cpu;
    event.pid = cursor.little<uint32_t>();
    event.tid = cursor.little<uint32_t>();
    event.timeNs = cursor.little<uint64_t>();
    if (_hasChains) {
        const auto count = cursor.little<uint64_t>();
        const auto bytes = cursor.bytes(count <= kMaxChain ? count * 8 : UINT64_MAX, kMaxChain * 8);
        _chain.resize(bytes.size() / 8);
        if (!_chain.empty())
            std::memcpy(_chain.data(), bytes.data(), bytes.size());
        event.chain = _chain;
    }
    const auto size = cursor.little<uint32_t>();
    event.record = cursor.bytes(size, UINT16_MAX);
    if (id != _latestId) {
        const auto found = _tracepoints.find(id);
        if (found == _tracepoints.end())
            cursor.fail();
        else
            _latestTracepoint = found->second;
        _latestId = id;
    }
    event.tracepoint = _latestTracepoint;
    if (cursor.failed()) {
        _latestId = 0;
        handler.onLost(trace::LostCause::kMalformed, 1);
    } else {
        handler.onEvent(event);
    }
}

void PerfSource::appendPollFds(std::vector<struct pollfd>& fds) const
{
    _processes.appendPollFds(fds);
    for (const Processor& processor : _processors)
        fds.push_back({processor.ringEvent.get(), POLLIN, 0});
}

} // namespace

uint32_t traceFramesAsked(const KernelTracerOptions& options)
{
    const int64_t allowed = perf::kernelSetting("perf_event_max_stack", PERF_MAX_STACK_DEPTH);
    return static_cast<uint32_t>(std::max<int64_t>(1, std::min<int64_t>(options.maxFrames, allowed)));
}

Result<std::unique_ptr<EventSource>> openPerfSource(const KernelTracerOptions& options,
                                                    const std::vector<Tracepoint>& tracepoints)
{
    ASSIGN_OR_RETURN(const std::vector<int> processors, perf::onlineProcessors());
    ASSIGN_OR_RETURN(ProcessRings processes, ProcessRings::open(processors));
    auto source = std::make_unique<PerfSource>(std::move(processes), wantsStacks(options));
    RETURN_IF_ERROR(source->open(options, tracepoints, processors));
    return std::unique_ptr<EventSource>(std::move(source));
}

} // namespace vnt
