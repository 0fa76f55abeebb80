#include "collectors/stacks/EventSet.h"

#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

#include "collectors/common/family.h"
#include "collectors/stacks/DumpSize.h"
#include "platform/base/ByteCursor.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kSmallestRing = 32u << 10; // below, one burst of mapping records overflows it
constexpr size_t kTimeFromEnd = 16; // sample_id of kSampleType ends with the time and the identifier
constexpr int kMostPasses = 100; // over the thread list; two or three find all of them

/// Events on threads take threads times processors descriptors: the soft limit gives way to the hard one.
void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit); // opening too many says so itself
}

Status noSuchProcess(pid_t pid) { return Status(Code::kNotFound, "there is no process " + std::to_string(pid)); }

Result<std::vector<pid_t>> threadsOf(pid_t pid)
{
    std::vector<pid_t> threads;
    for (const pid_t process : processesOfFamily(pid)) {
        for (const pid_t tid : threadsOfProcess(process))
            threads.push_back(tid);
    }
    if (threads.empty())
        return noSuchProcess(pid);
    return threads;
}

bool refused(const Status& status) { return status.errnoValue() == EACCES || status.errnoValue() == EPERM; }

/// What a kernel says that does not know something the attributes ask for.
bool isUnknownLayout(const Status& status)
{
    return status.errnoValue() == EINVAL || status.errnoValue() == EOPNOTSUPP;
}

} // namespace

Result<EventSet> EventSet::open(const StackSamplerOptions& options, const Placement* wanted)
{
    RETURN_IF_ERROR(checkOptions(options));
    const bool oneProcess = !options.allProcesses && options.pid > 0;
    if (oneProcess && threadsOfProcess(options.pid).empty())
        return noSuchProcess(options.pid);
    EventSet set(options);
    // Switches are told of every thread of the machine or, by events on threads, of the one process only.
    const Placement threads = Placement::kThreads;
    if (!wanted && oneProcess && recordsWaiting(options))
        wanted = &threads;
    Status status;
    if (!wanted || *wanted == Placement::kProcessors)
        status = set.tryOpen(Placement::kProcessors);
    else
        status = Status(Code::kDenied, "not wanted", EACCES);
    if (!status.ok() && oneProcess && (!wanted || *wanted == Placement::kThreads)) {
        set = EventSet(options);
        raiseDescriptorLimit();
        status = set.tryOpen(Placement::kThreads);
    }
    RETURN_IF_ERROR(status);
    return set;
}

Status EventSet::tryOpen(Placement placement)
{
    _offer.placement = placement;
    _offer.maxFrames = static_cast<uint32_t>(perf::kernelSetting("perf_event_max_stack", PERF_MAX_STACK_DEPTH));
    if (placement == Placement::kProcessors && !_options.allProcesses && _options.pid > 0) {
        ASSIGN_OR_RETURN(_filter, FamilyFilter::create(_options.pid, _options.traceFiles));
    }
    ASSIGN_OR_RETURN(_processors, openRings(firstRingBytes(_options, _offer), kSmallestRing));
    if (_filter) {
        ASSIGN_OR_RETURN(_family, _filter->addFamily(_options.pid));
    } else if (!_options.allProcesses && _options.pid > 0) {
        _family = processesOfFamily(_options.pid);
    }
    if (wantsDumps(_options) && !_processors.empty())
        _offer.dumpBytes = DumpSize(_options.intervalNs, ringBytes()).bytes();
    if (placement == Placement::kProcessors)
        return openOnProcessors();
    bool any = false;
    RETURN_IF_ERROR(openThreads(any));
    return any ? Status() : noSuchProcess(_options.pid);
}

/// All of the same size, the largest that the memory-lock limit allows.
Result<std::vector<EventSet::Processor>> EventSet::openRings(size_t bytes, size_t smallestBytes)
{
    ASSIGN_OR_RETURN(const std::vector<int> cpus, perf::onlineProcessors());
    for (;; bytes /= 2) {
        std::vector<Processor> processors;
        bool noMemory = false;
        Status status;
        for (size_t i = 0; i < cpus.size() && status.ok(); ++i) {
            Processor processor;
            processor.cpu = cpus[i];
            status = openRing(processor, bytes, noMemory);
            if (status.ok())
                processors.push_back(std::move(processor));
            else if (status.errnoValue() == ENODEV)
                status = Status(); // went offline meanwhile
        }
        if (status.ok())
            return processors;
        if (!noMemory || bytes <= smallestBytes)
            return status;
    }
}

Status EventSet::openRing(Processor& processor, size_t bytes, bool& noMemory)
{
    const bool everyone = _offer.placement == Placement::kProcessors;
    for (;;) {
        const perf_event_attr attributes = ringAttributes(_options, _offer, bytes);
        auto event = perf::openEvent(attributes, everyone ? -1 : 0, processor.cpu);
        if (!event.ok() && event.status().errnoValue() == EINVAL && _offer.buildIds) {
            _offer.buildIds = false;
            continue;
        }
        if (!event.ok() && refused(event.status()) && !everyone && _offer.kernelMode) {
            _offer.kernelMode = false;
            continue;
        }
        if (!event.ok())
            return explained(event.status(), everyone ? perf::Purpose::kWholeMachine : perf::Purpose::kOwnProcess);
        auto mapping = perf::mapRing(event.value().get(), bytes);
        noMemory = !mapping.ok() && refused(mapping.status());
        if (!mapping.ok())
            return explained(mapping.status(), perf::Purpose::kRing);
        ASSIGN_OR_RETURN(RingReader ring, RingReader::create(mapping.take()));
        ASSIGN_OR_RETURN(processor.ringEventId, perf::eventId(event.value().get()));
        processor.ringEvent = event.take();
        processor.ring = std::make_unique<RingReader>(std::move(ring));
        return {};
    }
}

Status EventSet::openOnProcessors()
{
    for (const Processor& processor : _processors) {
        Status status = openEvents(processor, -1, _events.onProcessors);
        if (isUnknownLayout(status) && _offer.dumpBytes != 0) {
            _offer.dumpBytes = 0;
            _events = Generation();
            return openOnProcessors();
        }
        if (!status.ok())
            return explained(status, perf::Purpose::kWholeMachine);
    }
    return {};
}

/// The events of one processor and thread, or -1 for all.
Status EventSet::openEvents(const Processor& processor, pid_t tid, Events& events)
{
    const auto open = [&](perf_event_attr attributes) -> Status {
        attributes.disabled = !_enabled;
        ASSIGN_OR_RETURN(UniqueFd event, perf::openEvent(attributes, tid, processor.cpu, processor.ringEvent.get()));
        if (tid == -1 && _filter)
            RETURN_IF_ERROR(perf::setProgram(event.get(), _filter->program()));
        ASSIGN_OR_RETURN(const uint64_t id, perf::eventId(event.get()));
        _events.ids.insert(id);
        if (attributes.config == PERF_COUNT_SW_CPU_CLOCK)
            _clockEvents.insert(id);
        events.push_back(std::move(event));
        return {};
    };
    RETURN_IF_ERROR(open(samplingAttributes(_options, _offer)));
    if (recordsWaiting(_options) && (tid == -1 || _offer.kernelMode))
        RETURN_IF_ERROR(open(switchAttributes(_options, _offer)));
    return {};
}

Status EventSet::openThread(pid_t tid, bool& gone)
{
    for (;;) {
        Events events;
        const Status status = tryOpenThread(tid, events);
        if (status.ok()) {
            _events.onThreads.emplace(tid, std::move(events));
            return {};
        }
        if (isUnknownLayout(status) && _offer.dumpBytes != 0) {
            _offer.dumpBytes = 0;
            continue;
        }
        if (refused(status) && _offer.kernelMode) {
            _offer.kernelMode = false;
            continue;
        }
        gone = status.errnoValue() == ESRCH;
        return gone ? Status() : explained(status, perf::Purpose::kOwnProcess);
    }
}

Status EventSet::tryOpenThread(pid_t tid, Events& events)
{
    for (const Processor& processor : _processors)
        RETURN_IF_ERROR(openEvents(processor, tid, events));
    return {};
}

Status EventSet::openThreads(bool& any)
{
    ASSIGN_OR_RETURN(const std::vector<pid_t> threads, threadsOf(_options.pid));
    for (const pid_t tid : threads) {
        if (_events.onThreads.count(tid))
            continue;
        bool gone = false;
        RETURN_IF_ERROR(openThread(tid, gone));
        any = any || !gone;
    }
    return {};
}

Status EventSet::followNewThreads(const OnRecord& onRecord)
{
    if (_offer.placement != Placement::kThreads)
        return {};
    // A thread whose beginning its parent's event recorded has inherited that event: our own one would double it.
    const auto onEach = [&](const perf_event_header& header, std::span<const std::byte> payload) {
        onRecord(header, payload);
        if (header.type != PERF_RECORD_FORK)
            return;
        ByteCursor cursor(payload);
        cursor.little<uint64_t>(); // the processes of both
        const auto tid = cursor.little<uint32_t>();
        // The record's last word is the event's identifier: one of an older generation covers nothing.
        ByteCursor trailer(payload.last(std::min(payload.size(), sizeof(uint64_t))));
        if (!cursor.failed() && _events.ids.count(trailer.little<uint64_t>()))
            _events.onThreads[static_cast<pid_t>(tid)].clear();
    };
    for (int pass = 0; pass < kMostPasses; ++pass) {
        drain(onEach, [] {});
        bool any = false;
        const Status status = openThreads(any);
        if (status.code() == Code::kNotFound)
            return {}; // it ended: what it did is in the rings
        RETURN_IF_ERROR(status);
        if (!any)
            break;
    }
    drain(onEach, [] {});
    return {};
}

/// The new generation samples beside the old one until it covers everything; of what both saw, one is left out.
Status EventSet::renew(uint32_t dumpBytes, size_t ringBytes, const OnRecord& onRecord)
{
    const KernelOffer offerBefore = _offer;
    const bool hasNewRings = openLargerRings(ringBytes);
    if (!hasNewRings && dumpBytes == _offer.dumpBytes)
        return {};
    Generation before = std::exchange(_events, Generation());
    _offer.dumpBytes = dumpBytes;
    _retiring = before.ids;
    for (const Processor& processor : _formerProcessors)
        _retiring.insert(processor.ringEventId);
    _tookOverNs = UINT64_MAX;
    Status status = openNewGeneration(onRecord);
    if (status.ok() && _offer.dumpBytes != dumpBytes)
        status = Status(Code::kUnsupported, "the kernel does not copy so much of a stack");
    if (status.ok()) {
        _tookOverNs = sys::monotonicNs();
    } else {
        std::swap(_events, before);
        if (hasNewRings)
            std::swap(_processors, _formerProcessors);
        _offer = offerBefore;
    }
    before = Generation();
    drain(onRecord, [] {});
    _formerProcessors.clear();
    _retiring.clear();
    _newRings.clear();
    return status;
}

/// True: they stand in the place of the others, which are the former ones now. Else all is as it was.
bool EventSet::openLargerRings(size_t bytes)
{
    if (bytes <= ringBytes() || _offer.placement == Placement::kThreads)
        return false;
    auto larger = openRings(bytes, 2 * ringBytes());
    if (!larger.ok())
        return false;
    _formerProcessors = std::exchange(_processors, larger.take());
    for (const Processor& processor : _processors)
        _newRings.insert(processor.ringEventId);
    return true;
}

Status EventSet::openNewGeneration(const OnRecord& onRecord)
{
    if (_offer.placement == Placement::kProcessors)
        return openOnProcessors();
    return followNewThreads(onRecord);
}

/// For drainInOrder().
uint64_t EventSet::timeInOrder(const RingReader::Record& record, uint64_t nowNs) const
{
    constexpr uint64_t kSoonNs = 1'000'000'000; // the time that a record of the round's own time may lie ahead
    ByteCursor cursor(record.payload);
    if (record.header.type == PERF_RECORD_SAMPLE) {
        const auto event = cursor.little<uint64_t>();
        cursor.little<uint64_t>(); // process and thread
        if (_clockEvents.count(event) == 0)
            return 0; // may have the time of another recorder's clock: SampleAssembler::onSample()
    } else {
        cursor = ByteCursor(record.payload.last(std::min(record.payload.size(), kTimeFromEnd)));
    }
    const auto timeNs = cursor.little<uint64_t>();
    return timeNs < nowNs + kSoonNs ? timeNs : 0; // must not hold the ring up
}

/// Of what the old and the new events told at the same time, the old ones' words count, until the new ones took over.
bool EventSet::isDoubled(const perf_event_header& header, std::span<const std::byte> payload) const
{
    if (header.type == PERF_RECORD_SAMPLE) {
        ByteCursor cursor(payload); // kSampleType: identifier, thread, time
        const auto event = cursor.little<uint64_t>();
        if (_clockEvents.count(event) == 0)
            return false; // of a thread that leaves a processor: a second one does no harm, and whose it is is not
                          // certain
        cursor.little<uint64_t>();
        const auto timeNs = cursor.little<uint64_t>();
        return (_retiring.count(event) != 0) != (timeNs < _tookOverNs);
    }
    // Of processes, rings' own events tell. Only where these are others now is anything told twice.
    const bool isOfProcess = header.type == PERF_RECORD_MMAP2 || header.type == PERF_RECORD_COMM
        || header.type == PERF_RECORD_FORK || header.type == PERF_RECORD_EXIT;
    if (!isOfProcess || _newRings.empty())
        return false;
    ByteCursor cursor(payload.last(std::min(payload.size(), kTimeFromEnd)));
    const auto timeNs = cursor.little<uint64_t>();
    const auto event = cursor.little<uint64_t>();
    return (_newRings.count(event) == 0) != (timeNs < _tookOverNs);
}

template <typename Function> Status EventSet::forEachSampling(Function function)
{
    for (const UniqueFd& event : _events.onProcessors)
        RETURN_IF_ERROR(function(event.get()));
    for (const auto& [tid, events] : _events.onThreads) {
        for (const UniqueFd& event : events)
            RETURN_IF_ERROR(function(event.get()));
    }
    return {};
}

Status EventSet::enable()
{
    _enabled = true;
    return forEachSampling([](int fd) { return perf::enable(fd); });
}

Status EventSet::disable()
{
    _enabled = false;
    return forEachSampling([](int fd) { return perf::disable(fd); });
}

void EventSet::appendPollFds(std::vector<struct pollfd>& fds) const
{
    for (const Processor& processor : _processors)
        fds.push_back({processor.ringEvent.get(), POLLIN, 0});
}

void EventSet::close()
{
    _events = Generation();
    _processors.clear();
    _filter.reset();
}

Status EventSet::explained(const Status& refusal, perf::Purpose purpose) const
{
    return perf::explain(refusal, purpose, perf::kernelSetting("perf_event_paranoid", 2));
}

} // namespace vnt
