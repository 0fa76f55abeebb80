#include <algorithm>
#include <bit>
#include <cerrno>

#include "collectors/common/bpf.h"
#include "collectors/common/perf.h"
#include "collectors/kernel/BpfRing.h"
#include "collectors/kernel/EventSource.h"
#include "collectors/kernel/ProcessRings.h"
#include "collectors/kernel/RecordingProgram.h"
#include "collectors/kernel/TargetTasks.h"
#include "collectors/kernel/TracePlan.h"
#include "platform/base/ByteCursor.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

// The program does not wake the reader: that would cost more than the event. At 800,000 events a second of 64 bytes,
// 20 ms are 1 MiB.
constexpr std::chrono::milliseconds kDrainInterval{20};
constexpr uint32_t kMaxTasks = 1u << 17;

/// One ring for all processors: 16 MiB for each, 32 to 128 MiB together. Half a second of 800,000 events.
size_t ringBytesFor(const KernelTracerOptions& options, size_t processors)
{
    if (options.ringBytes != 0)
        return options.ringBytes;
    return std::bit_floor(std::clamp<size_t>(processors * (16u << 20), 32u << 20, 128u << 20));
}

/// A BPF program on each tracepoint that picks the target's events and writes them into one ring.
class ProgramSource final : public EventSource {
public:
    ProgramSource(const KernelTracerOptions& options, ProcessRings processes)
        : _processes(std::move(processes)),
          _hasTarget(!options.allProcesses)
    {
    }

    Status open(const KernelTracerOptions& options, const TraceFs& files, const std::vector<Tracepoint>& tracepoints,
                size_t ringBytes, int processor);
    Status enable() override { return setEnabled(1); }
    Status disable() override { return setEnabled(0); }
    void drain(EventSourceHandler& handler) override;
    void appendPollFds(std::vector<struct pollfd>& fds) const override { _processes.appendPollFds(fds); }
    [[nodiscard]] std::chrono::milliseconds drainInterval() const override { return kDrainInterval; }
    [[nodiscard]] bool isFiltered() const override { return true; }

private:
    /// A loaded program, and the event that holds it in place.
    struct Attached {
        UniqueFd program;
        UniqueFd event;
        uint64_t missed = 0; ///< told so far
    };
    Status createMaps(const KernelTracerOptions& options, size_t ringBytes);
    Status attach(uint32_t tracepointId, const std::vector<bpf_insn>& code, int processor);
    Status follow(const TraceFs& files, int processor, pid_t pid);
    Status setEnabled(uint64_t enabled);
    [[nodiscard]] ProgramMaps maps() const
    {
        return {_enabled.get(), _losses.get(), _tasks.get(), _scratch.get(), _ring.get()};
    }
    void onRecord(std::span<const std::byte> bytes, EventSourceHandler& handler);
    void reportLosses(EventSourceHandler& handler);

    ProcessRings _processes;
    const bool _hasTarget;
    const std::vector<Tracepoint>* _tracepoints = nullptr; // the tracer's; outlives this
    UniqueFd _enabled, _losses, _tasks, _scratch, _ring;
    std::vector<Attached> _attached;
    std::unique_ptr<BpfRing> _reader;
    uint64_t _lostTold = 0;
    std::vector<uint64_t> _chain;
};

Status ProgramSource::createMaps(const KernelTracerOptions& options, size_t ringBytes)
{
    ASSIGN_OR_RETURN(_enabled, bpf::createMap({BPF_MAP_TYPE_ARRAY, 4, sizeof(uint64_t), 1, 0}));
    ASSIGN_OR_RETURN(_losses, bpf::createMap({BPF_MAP_TYPE_ARRAY, 4, sizeof(ProgramLosses), 1, 0}));
    ASSIGN_OR_RETURN(_tasks, bpf::createMap({BPF_MAP_TYPE_HASH, 4, 4, kMaxTasks, BPF_F_NO_PREALLOC}));
    if (wantsStacks(options)) {
        ASSIGN_OR_RETURN(_scratch, bpf::createMap({BPF_MAP_TYPE_PERCPU_ARRAY, 4, kScratchBytes, 1, 0}));
    }
    ASSIGN_OR_RETURN(_ring, bpf::createMap({BPF_MAP_TYPE_RINGBUF, 0, 0, static_cast<uint32_t>(ringBytes), 0}));
    ASSIGN_OR_RETURN(BpfRing reader, BpfRing::create(_ring.get(), ringBytes));
    _reader = std::make_unique<BpfRing>(std::move(reader));
    return {};
}

/// One event on one processor is enough: its program runs wherever the tracepoint is passed.
Status ProgramSource::attach(uint32_t tracepointId, const std::vector<bpf_insn>& code, int processor)
{
    Attached attached;
    ASSIGN_OR_RETURN(attached.program, bpf::loadProgram(BPF_PROG_TYPE_TRACEPOINT, code));
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_TRACEPOINT;
    attributes.config = tracepointId;
    attributes.sample_period = 1;
    attributes.disabled = 1; // nothing for a perf ring
    ASSIGN_OR_RETURN(attached.event, perf::openEvent(attributes, -1, processor));
    RETURN_IF_ERROR(perf::setProgram(attached.event.get(), attached.program.get()));
    _attached.push_back(std::move(attached));
    return {};
}

Status ProgramSource::follow(const TraceFs& files, int processor, pid_t pid)
{
    const auto formatOf = [&](const char* name) -> Result<TracepointFormat> {
        ASSIGN_OR_RETURN(const std::string text, files.read(std::string("events/sched/") + name + "/format"));
        return TracepointFormat::parse(text);
    };
    ASSIGN_OR_RETURN(const TracepointFormat fork, formatOf("sched_process_fork"));
    ASSIGN_OR_RETURN(const TracepointFormat free, formatOf("sched_process_free"));
    const auto* child = fork.field("child_pid");
    const auto* thread = free.field("pid");
    if (!child || !thread || child->sizeBytes != 4 || thread->sizeBytes != 4)
        return Status(Code::kUnsupported, "this kernel's process events are laid out in another way");
    RETURN_IF_ERROR(attach(fork.id, forkProgram({child->offset, 4, true}, maps()), processor));
    RETURN_IF_ERROR(attach(free.id, freeProgram({thread->offset, 4, true}, maps()), processor));
    // Twice: what begins between a look and the first program's start is found by the second look.
    for (int pass = 0; pass < 2; ++pass) {
        for (const TaskIds& task : threadsOfFamily(pid)) {
            const uint32_t one = 1;
            RETURN_IF_ERROR(bpf::updateElement(_tasks.get(), &task.tid, &one));
        }
    }
    return {};
}

Status ProgramSource::open(const KernelTracerOptions& options, const TraceFs& files,
                           const std::vector<Tracepoint>& tracepoints, size_t ringBytes, int processor)
{
    _tracepoints = &tracepoints;
    if (_hasTarget && !perf::seesKernelProcessIds())
        return Status(Code::kUnsupported, "the kernel's process ids are not visible in this namespace");
    RETURN_IF_ERROR(createMaps(options, ringBytes));
    for (uint16_t i = 0; i < tracepoints.size(); ++i) {
        const auto code = recordingProgram(options, tracepoints[i], i, traceFramesAsked(options), maps());
        RETURN_IF_ERROR(attach(tracepoints[i].format.id, code, processor));
    }
    return _hasTarget ? follow(files, processor, options.pid) : Status();
}

Status ProgramSource::setEnabled(uint64_t enabled)
{
    const uint32_t key = 0;
    return bpf::updateElement(_enabled.get(), &key, &enabled);
}

void ProgramSource::drain(EventSourceHandler& handler)
{
    _processes.drain(handler);
    if (!_reader->dead() && !_reader->drain([&](std::span<const std::byte> bytes) { onRecord(bytes, handler); }).ok())
        handler.onLost(trace::LostCause::kMalformed, 1);
    reportLosses(handler);
}

void ProgramSource::onRecord(std::span<const std::byte> bytes, EventSourceHandler& handler)
{
    ByteCursor cursor(bytes);
    RawEvent event;
    event.timeNs = cursor.little<uint64_t>();
    event.pid = cursor.little<uint32_t>();
    event.tid = cursor.little<uint32_t>();
    event.cpu = cursor.little<uint16_t>();
    event.tracepoint = cursor.little<uint16_t>();
    const auto kernelBytes = cursor.little<uint16_t>();
    const auto userBytes = cursor.little<uint16_t>();
    if (cursor.failed() || event.tracepoint >= _tracepoints->size()) {
        handler.onLost(trace::LostCause::kMalformed, 1);
        return;
    }
    const Tracepoint& tracepoint = (*_tracepoints)[event.tracepoint];
    event.isPacked = true;
    event.record = cursor.bytes(8 * programWords(tracepoint), bytes.size());
    const auto text = cursor.bytes(programTextBytes(tracepoint), bytes.size());
    event.text = std::string_view(reinterpret_cast<const char*>(text.data()), text.size());
    event.text = event.text.substr(0, event.text.find('\0'));
    const auto stacks = cursor.bytes(uint64_t{kernelBytes} + userBytes, bytes.size());
    if (cursor.failed()) {
        handler.onLost(trace::LostCause::kMalformed, 1);
        return;
    }
    _chain.resize(stacks.size() / 8);
    if (!_chain.empty())
        std::memcpy(_chain.data(), stacks.data(), _chain.size() * 8);
    event.chain = _chain;
    handler.onEvent(event);
}

void ProgramSource::reportLosses(EventSourceHandler& handler)
{
    const uint32_t key = 0;
    ProgramLosses value{};
    if (bpf::lookUpElement(_losses.get(), &key, &value).ok() && value.lost + value.unfollowed > _lostTold) {
        handler.onLost(trace::LostCause::kRingFull, value.lost + value.unfollowed - _lostTold);
        _lostTold = value.lost + value.unfollowed;
    }
    for (Attached& attached : _attached) {
        const uint64_t missed = bpf::missedRuns(attached.program.get());
        if (missed > attached.missed)
            handler.onLost(trace::LostCause::kRecursion, missed - attached.missed);
        attached.missed = missed;
    }
}

} // namespace

Result<std::unique_ptr<EventSource>> openProgramSource(const KernelTracerOptions& options, const TraceFs& files,
                                                       const std::vector<Tracepoint>& tracepoints)
{
    ASSIGN_OR_RETURN(const std::vector<int> processors, perf::onlineProcessors());
    ASSIGN_OR_RETURN(ProcessRings processes, ProcessRings::open(processors));
    auto source = std::make_unique<ProgramSource>(options, std::move(processes));
    RETURN_IF_ERROR(
        source->open(options, files, tracepoints, ringBytesFor(options, processors.size()), processors.front()));
    return std::unique_ptr<EventSource>(std::move(source));
}

} // namespace vnt
