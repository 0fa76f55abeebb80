#include "collectors/stacks/SampleAssembler.h"

#include <algorithm>
#include <utility>

namespace vnt {
namespace {

constexpr size_t kBatchBytes = 48u << 10; // a message; large enough that its cost does not matter, small for the queue
constexpr size_t kTrailerBytes = 24; // sample_id of kSampleType: pid, tid, time, identifier
constexpr size_t kMaxChain = stacks::kMaxDepth + 16; // frames and context markers
constexpr size_t kMaxPathBytes = 4096; // PATH_MAX
constexpr size_t kMaxThrottled = 65536; // events; more than threads times processors allow

std::string_view untilNul(std::span<const std::byte> bytes)
{
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return text.substr(0, text.find('\0'));
}

/// The text that fills a record up to its trailer.
std::string_view textBeforeTrailer(ByteCursor& cursor)
{
    if (cursor.remaining() < kTrailerBytes) {
        cursor.fail();
        return {};
    }
    return untilNul(cursor.bytes(cursor.remaining() - kTrailerBytes, kMaxPathBytes + 8));
}

std::string hexadecimal(std::span<const std::byte> bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::byte b : bytes) {
        text.push_back(kDigits[static_cast<uint8_t>(b) >> 4]);
        text.push_back(kDigits[static_cast<uint8_t>(b) & 15]);
    }
    return text;
}

} // namespace

SampleAssembler::SampleAssembler(const Settings& settings, RecordSink& sink, ProcessObserver* observer)
    : _sink(sink),
      _observer(observer),
      _onlyPid(static_cast<uint32_t>(settings.onlyPid)),
      _family(settings.family.begin(), settings.family.end()),
      _maxFrames(settings.maxFrames),
      _intervalNs(settings.session.intervalNs),
      _recordsWaiting(settings.session.flags & stacks::SessionRecord::kBlockedThreads),
      _clockEvents(settings.clockEvents),
      _writer(settings.session)
{
    _chain.reserve(kMaxChain + 1);
    if (_onlyPid != 0)
        _family.insert(_onlyPid);
    if (settings.dumpRingBytes != 0)
        _dumps.emplace(_intervalNs, settings.dumpRingBytes, _maxFrames);
}

SampleAssembler::Origin SampleAssembler::readTrailer(std::span<const std::byte> payload)
{
    Origin origin;
    if (payload.size() < kTrailerBytes)
        return origin;
    ByteCursor cursor(payload.last(kTrailerBytes));
    origin.pid = cursor.little<uint32_t>();
    origin.tid = cursor.little<uint32_t>();
    origin.timeNs = cursor.little<uint64_t>();
    origin.id = cursor.little<uint64_t>();
    return origin;
}

void SampleAssembler::onRecord(const perf_event_header& header, std::span<const std::byte> payload)
{
    ByteCursor cursor(payload);
    if (header.type == PERF_RECORD_SAMPLE) {
        onSample(cursor);
        return;
    }
    const auto pid = cursor.little<uint32_t>();
    const bool isOfProcess = header.type == PERF_RECORD_MMAP2 || header.type == PERF_RECORD_COMM
        || header.type == PERF_RECORD_FORK || header.type == PERF_RECORD_EXIT;
    onOtherRecord(header, payload);
    if (isOfProcess && _onlyPid != 0 && !concerns(pid)) // not even after the record of its start
        keepEarly(header, payload);
}

/// Until the next round over the rings is done.
void SampleAssembler::keepEarly(const perf_event_header& header, std::span<const std::byte> payload)
{
    constexpr size_t kMostEarly = 16384; // some 2 MB; a machine that starts 1,000 programs a second makes 2,000 a round
    ByteCursor cursor(payload);
    if (_early.size() < kMostEarly)
        _early.push_back({cursor.little<uint32_t>(), header, {payload.begin(), payload.end()}});
}

void SampleAssembler::replayEarly(uint32_t pid)
{
    std::vector<EarlyRecord> records;
    for (EarlyRecord& early : _early) {
        if (early.pid == pid && !early.payload.empty())
            records.push_back(std::exchange(early, EarlyRecord()));
    }
    for (const EarlyRecord& record : records)
        onRecord(record.header, record.payload);
}

void SampleAssembler::onOtherRecord(const perf_event_header& header, std::span<const std::byte> payload)
{
    ByteCursor cursor(payload);
    const Origin origin = readTrailer(payload);
    _latestNs = std::max(_latestNs, origin.timeNs);
    switch (header.type) {
    case PERF_RECORD_MMAP2:
        onMapping(header, cursor, origin);
        break;
    case PERF_RECORD_COMM:
        onName(header, cursor, origin);
        break;
    case PERF_RECORD_FORK:
    case PERF_RECORD_EXIT:
        onTask(header.type, cursor);
        break;
    case PERF_RECORD_SWITCH:
    case PERF_RECORD_SWITCH_CPU_WIDE:
        onSwitch(header, origin);
        break;
    case PERF_RECORD_LOST: // id, count
        cursor.little<uint64_t>();
        addLost(stacks::LostCause::kRingFull, cursor.little<uint64_t>());
        break;
    case PERF_RECORD_LOST_SAMPLES:
        addLost(stacks::LostCause::kRingFull, cursor.little<uint64_t>());
        break;
    case PERF_RECORD_THROTTLE:
    case PERF_RECORD_UNTHROTTLE:
        onThrottle(header.type, cursor);
        break;
    default:
        break; // nothing else was asked for; a newer kernel may tell more
    }
}

void SampleAssembler::onSample(ByteCursor cursor)
{
    const auto event = cursor.little<uint64_t>();
    uint32_t pid = cursor.little<uint32_t>();
    uint32_t tid = cursor.little<uint32_t>();
    const auto timeNs = cursor.little<uint64_t>();
    if (!readChain(cursor)) {
        addLost(stacks::LostCause::kMalformed, 1);
        return;
    }
    // A task that is past its exit has no ids any more (perf_event_pid()); its time still counts.
    if (pid == UINT32_MAX)
        pid = _onlyPid;
    if (tid == UINT32_MAX)
        tid = 0;
    // The kernel samples the family only: the record of a process's start may be still to be read.
    if (_dumps && !_dumps->unwind(cursor, static_cast<pid_t>(pid), _chain))
        addLost(stacks::LostCause::kMalformed, 1);
    if (_recordsWaiting) {
        // Any other samples a thread that leaves its processor. When several recorders of one machine watch that, the
        // kernel makes one sample for all (do_perf_sw_event() in kernel/events/core.c): the identifier and the time in
        // it may be another recorder's.
        if (!_clockEvents->count(event)) {
            if (tid != 0) // neither the idle task nor one past its exit
                _waits.onStack(tid, _chain);
            return;
        }
        _waits.onRunning(tid);
    }
    _latestNs = std::max(_latestNs, timeNs);
    ensureRoom(_chain.size());
    const uint32_t thread = _threads.numberOf(pid, tid, _writer);
    const uint32_t stack = _interner.intern(_chain, framesOfCut(), _writer);
    _writer.addSample(timeNs, thread, stack);
    if (_writer.sizeBytes() >= kBatchBytes)
        send(Wait::kNo);
}

bool SampleAssembler::readChain(ByteCursor& cursor)
{
    const auto count = cursor.little<uint64_t>();
    const auto bytes = cursor.bytes(std::min(count, UINT64_MAX / 8) * 8, kMaxChain * 8);
    if (cursor.failed())
        return false;
    _chain.resize(static_cast<size_t>(count));
    std::memcpy(_chain.data(), bytes.data(), bytes.size());
    return true;
}

void SampleAssembler::onMapping(const perf_event_header& header, ByteCursor cursor, const Origin& origin)
{
    MappingEvent event;
    event.timeNs = origin.timeNs;
    const auto pid = cursor.little<uint32_t>();
    cursor.little<uint32_t>(); // tid
    event.pid = static_cast<pid_t>(pid);
    event.start = cursor.little<uint64_t>();
    event.sizeBytes = cursor.little<uint64_t>();
    event.fileOffset = cursor.little<uint64_t>();
    if (header.misc & PERF_RECORD_MISC_MMAP_BUILD_ID) {
        const auto size = cursor.little<uint8_t>();
        cursor.bytes(3, 3); // reserved
        const auto id = cursor.bytes(20, 20);
        event.buildId = hexadecimal(id.first(std::min<size_t>(size, id.size())));
    } else {
        cursor.bytes(24, 24); // device, inode, generation
    }
    cursor.bytes(8, 8); // protection, flags
    event.path = textBeforeTrailer(cursor);
    if (cursor.failed())
        addLost(stacks::LostCause::kMalformed, 1);
    if (cursor.failed() || !concerns(pid))
        return;
    if (_dumps)
        _dumps->spaces().onMapping(event.pid, event.start, event.sizeBytes, event.fileOffset, event.path);
    if (_observer)
        _observer->onMapping(event);
}

void SampleAssembler::onName(const perf_event_header& header, ByteCursor cursor, const Origin& origin)
{
    const auto pid = cursor.little<uint32_t>();
    const auto tid = cursor.little<uint32_t>();
    const std::string_view name = textBeforeTrailer(cursor);
    if (cursor.failed()) {
        addLost(stacks::LostCause::kMalformed, 1);
        return;
    }
    if (!concerns(pid))
        return;
    if ((header.misc & PERF_RECORD_MISC_COMM_EXEC) == 0) {
        _threads.onName(pid, tid, name);
        return;
    }
    _threads.onExec(pid, name);
    if (_dumps)
        _dumps->spaces().onExec(static_cast<pid_t>(pid));
    _writer.addExec(origin.timeNs, pid, name);
    if (_observer)
        _observer->onExec(origin.timeNs, static_cast<pid_t>(pid), std::string(name));
}

void SampleAssembler::onTask(uint32_t type, ByteCursor cursor)
{
    const auto pid = cursor.little<uint32_t>();
    const auto parentPid = cursor.little<uint32_t>();
    const auto tid = cursor.little<uint32_t>();
    const auto parentTid = cursor.little<uint32_t>();
    const auto timeNs = cursor.little<uint64_t>();
    if (cursor.failed()) {
        addLost(stacks::LostCause::kMalformed, 1);
        return;
    }
    if (type == PERF_RECORD_FORK && _onlyPid != 0 && concerns(parentPid))
        _family.insert(pid);
    if (!concerns(pid))
        return;
    if (_recordsWaiting) {
        if (type == PERF_RECORD_EXIT)
            _waits.onExit(pid, tid, timeNs);
        else
            _waits.onBegin(pid, tid, timeNs);
    }
    if (type == PERF_RECORD_EXIT) {
        if (_recordsWaiting)
            _exited.push_back(tid);
        else
            _threads.onExit(tid);
        if (pid != tid)
            return;
        _writer.addExit(timeNs, pid);
        if (_dumps)
            _dumps->spaces().onExit(static_cast<pid_t>(pid));
        if (_observer)
            _observer->onExit(timeNs, static_cast<pid_t>(pid));
        return;
    }
    _threads.onFork(pid, tid, parentPid, parentTid);
    if (pid == parentPid)
        return;
    _writer.addFork(timeNs, parentPid, pid);
    if (_dumps)
        _dumps->spaces().onFork(static_cast<pid_t>(parentPid), static_cast<pid_t>(pid));
    if (_observer)
        _observer->onFork(timeNs, static_cast<pid_t>(parentPid), static_cast<pid_t>(pid));
    replayEarly(pid);
}

void SampleAssembler::onSwitch(const perf_event_header& header, const Origin& origin)
{
    constexpr uint32_t kGone = UINT32_MAX; // as in samples: past its exit
    if (!_recordsWaiting || origin.tid == 0 || origin.tid == kGone || !concerns(origin.pid))
        return;
    if (header.misc & PERF_RECORD_MISC_SWITCH_OUT)
        _waits.onLeave(origin.pid, origin.tid, origin.timeNs);
    else
        _waits.onTake(origin.pid, origin.tid, origin.timeNs);
}

void SampleAssembler::onWait(const WaitTracker::Wait& wait)
{
    ensureRoom(wait.chain.size());
    const uint32_t thread = _threads.numberOf(wait.pid, wait.tid, _writer);
    const uint32_t stack = _interner.intern(wait.chain, framesOfCut(), _writer);
    _writer.addBlocked(wait.endNs, thread, stack, wait.endNs - wait.beginNs);
    if (_writer.sizeBytes() >= kBatchBytes)
        send(Wait::kNo);
}

void SampleAssembler::settleWaits(uint64_t beganNs, uint64_t untilNs)
{
    _waits.settle(beganNs, untilNs, [this](const WaitTracker::Wait& wait) { onWait(wait); });
    forgetExited();
}

void SampleAssembler::finishWaits(uint64_t beganNs, uint64_t untilNs, std::span<const uint32_t> threads)
{
    _waits.finish(beganNs, untilNs, _onlyPid, threads, [this](const WaitTracker::Wait& wait) { onWait(wait); });
    forgetExited();
}

void SampleAssembler::forgetExited()
{
    for (const uint32_t tid : _exited)
        _threads.onExit(tid);
    _exited.clear();
}

void SampleAssembler::ensureRoom(size_t frames)
{
    if (!_interner.roomFor(frames) || !_threads.room())
        renewGeneration();
}

void SampleAssembler::onThrottle(uint32_t type, ByteCursor cursor)
{
    const auto timeNs = cursor.little<uint64_t>();
    cursor.little<uint64_t>(); // id of the event as opened
    const auto streamId = cursor.little<uint64_t>();
    if (cursor.failed())
        return;
    if (type == PERF_RECORD_THROTTLE) {
        if (_throttledSinceNs.size() < kMaxThrottled)
            _throttledSinceNs.emplace(streamId, timeNs);
        return;
    }
    const auto since = _throttledSinceNs.find(streamId);
    if (since == _throttledSinceNs.end())
        return;
    if (timeNs > since->second)
        addLost(stacks::LostCause::kThrottled, (timeNs - since->second) / _intervalNs);
    _throttledSinceNs.erase(since);
}

void SampleAssembler::addLost(stacks::LostCause cause, uint64_t count) { _lost[static_cast<size_t>(cause)] += count; }

void SampleAssembler::writeLosses()
{
    for (size_t i = 0; i < stacks::kLostCauses; ++i) {
        if (_lost[i] != _lostWritten[i])
            _writer.addLost(_latestNs, static_cast<stacks::LostCause>(i), _lost[i]);
        _lostWritten[i] = _lost[i];
    }
}

void SampleAssembler::renewGeneration()
{
    const uint32_t generation = _writer.generation();
    send(Wait::kNo);
    if (_writer.generation() == generation) // else the batch was dropped, and that began one
        _writer.beginGeneration();
    forgetDefinitions();
}

void SampleAssembler::forgetDefinitions()
{
    _interner.clear();
    _threads.beginGeneration();
}

Status SampleAssembler::flush(Wait wait, uint64_t recorderCpuNs)
{
    if (recorderCpuNs != 0)
        _writer.addCost(_latestNs, recorderCpuNs);
    writeLosses();
    send(wait);
    _early.erase(_early.begin(), _early.begin() + static_cast<std::ptrdiff_t>(_earlyBefore));
    _earlyBefore = _early.size();
    if (_observer) {
        const std::vector<uint64_t> addresses = _interner.takeNewKernelAddresses();
        if (!addresses.empty())
            _observer->onKernelAddresses(addresses);
    }
    return _status;
}

void SampleAssembler::send(Wait wait)
{
    if (_writer.empty())
        return;
    if (_status.code() == Code::kPeerGone) {
        _writer.messageDropped();
        forgetDefinitions();
        return;
    }
    const std::span<const std::byte> message = _writer.message();
    _status = wait == Wait::kForRoom ? _sink.send(message) : _sink.trySend(message);
    if (_status.ok()) {
        _writer.messageSent();
        return;
    }
    addLost(stacks::LostCause::kBatchDropped, _writer.pendingSamples());
    addLost(stacks::LostCause::kEventsDropped, _writer.pendingEvents());
    // The totals in the dropped batch are gone too: said again with the next one.
    std::fill(std::begin(_lostWritten), std::end(_lostWritten), 0);
    _writer.messageDropped();
    forgetDefinitions();
}

} // namespace vnt
