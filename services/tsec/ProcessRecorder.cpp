#include "services/tsec/ProcessRecorder.h"

#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "collectors/common/perf.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

// A record gets its time a moment before it stands in its processor's ring. What is younger waits for the next round,
// so that records of several processors come in order.
constexpr uint64_t kSettlingNs = 20'000'000;
// Between scans: while events are lost all the time, a scan does not add to the load.
constexpr uint64_t kScanDistanceNs = 2'000'000'000;
constexpr int kMaxHangingScans = 4; // then there are no more scans
constexpr std::chrono::milliseconds kScanLookMs{20}; // how often a running scan is looked after
constexpr std::chrono::seconds kCatchUpPatience{10};

} // namespace

Result<std::shared_ptr<ProcessRecorder>> ProcessRecorder::start(size_t ringBytes)
{
    std::shared_ptr<ProcessRecorder> recorder(new ProcessRecorder);
    RETURN_IF_ERROR(recorder->open(ringBytes));
    const sys::SignalBlock block;
    try {
        recorder->_thread = std::thread([self = recorder.get()] { self->run(); });
    } catch (const std::system_error& error) {
        return Status::fromErrno(error.code().value(), "thread of the recorder");
    }
    return recorder;
}

ProcessRecorder::~ProcessRecorder()
{
    if (!_thread.joinable())
        return;
    {
        MutexLock lock(_lock);
        _stopped = true;
    }
    const uint64_t one = 1;
    (void)::write(_wake.get(), &one, sizeof one); // a full counter wakes as well
    _thread.join();
}

Status ProcessRecorder::open(size_t ringBytes)
{
    ASSIGN_OR_RETURN(_wake, sys::makeEventFd());
    ASSIGN_OR_RETURN(const std::vector<int> cpus, perf::onlineProcessors());
    for (const int cpu : cpus) {
        const Status status = openRing(cpu, ringBytes);
        if (status.errnoValue() != ENODEV) // went offline meanwhile
            RETURN_IF_ERROR(status);
    }
    return {};
}

Status ProcessRecorder::openRing(int cpu, size_t ringBytes)
{
    const int64_t paranoid = perf::kernelSetting("perf_event_paranoid", 2);
    auto event = perf::openEvent(taskRecordAttributes(ringBytes, /*buildIds=*/true), /*pid=*/-1, cpu);
    if (event.status().errnoValue() == EINVAL)
        event = perf::openEvent(taskRecordAttributes(ringBytes, /*buildIds=*/false), /*pid=*/-1, cpu);
    if (!event.ok())
        return perf::explain(event.status(), perf::Purpose::kWholeMachine, paranoid);
    auto mapping = perf::mapRing(event.value().get(), ringBytes);
    if (!mapping.ok())
        return perf::explain(mapping.status(), perf::Purpose::kRing, paranoid);
    ASSIGN_OR_RETURN(RingReader reader, RingReader::create(mapping.take()));
    _rings.push_back({event.take(), std::move(reader)});
    return {};
}

void ProcessRecorder::run()
{
    startScan(/*startedNs=*/0, /*skip=*/0);
    for (;;) {
        waitForWork();
        // Before the requests are looked at: one that waits for the first scan is served as soon as that is done, and
        // while one waits there is a scan, which keeps this thread attentive.
        tendScan();
        const uint64_t settledNs = sys::monotonicNs() - kSettlingNs;
        drain(settledNs);
        if (_scanned && _scanned->doneNs <= settledNs) {
            _log->onScanEnd(_scanned->beganNs, _scanned->running);
            _scanned.reset();
        }
        MutexLock lock(_lock);
        if (_stopped)
            break;
        for (; _firstScanDone && !_askedNs.empty() && _askedNs.front() <= settledNs; ++_served)
            _askedNs.pop_front();
        _changed.notifyAll();
        _isAwaited = !_askedNs.empty();
    }
    MutexLock lock(_lock);
    _served = UINT64_MAX;
    _changed.notifyAll();
}

void ProcessRecorder::waitForWork()
{
    std::vector<pollfd> fds{{_wake.get(), POLLIN, 0}};
    for (const Ring& ring : _rings) {
        if (!ring.reader.dead())
            fds.push_back({ring.event.get(), POLLIN, 0});
    }
    const bool attentive = _scan || _scanned || _scanWanted || _isAwaited || !_held.empty();
    (void)sys::pollFds(fds, attentive ? kScanLookMs : std::chrono::milliseconds(-1)); // a failure shows in what follows
    uint64_t count = 0;
    if (fds[0].revents != 0)
        (void)sys::readSome(_wake.get(), &count, sizeof count); // empty already is fine
}

/// Applies, in the order of their times, the records up to `settledNs`; what is younger is held, since something older
/// may still come.
void ProcessRecorder::drain(uint64_t settledNs)
{
    for (Ring& ring : _rings) {
        if (ring.reader.dead())
            continue;
        const Status status =
            ring.reader.drain([&](const perf_event_header& header, std::span<const std::byte> payload) {
                auto record = parseTaskRecord(header, payload);
                if (!record)
                    return;
                _scanWanted = _scanWanted || record->kind == TaskRecord::Kind::kLost;
                _held.push_back(std::move(*record));
            });
        if (!status.ok())
            _log->onLost(1); // and all that would have followed; the scan finds what runs
        _scanWanted = _scanWanted || !status.ok();
    }
    std::stable_sort(_held.begin(), _held.end(),
                     [](const TaskRecord& a, const TaskRecord& b) { return a.timeNs < b.timeNs; });
    auto next = _held.begin();
    for (; next != _held.end() && next->timeNs <= settledNs; ++next)
        applyTaskRecord(*next, *_log);
    _held.erase(_held.begin(), next);
}

void ProcessRecorder::tendScan()
{
    const ProcessScan::State state = _scan ? _scan->state() : ProcessScan::State::kDone;
    if (state == ProcessScan::State::kRunning)
        return;
    const uint64_t now = sys::monotonicNs();
    if (state == ProcessScan::State::kHanging) {
        const pid_t stuck = _scan->current();
        _scan.reset();
        // The rest once more without that process, which keeps what is known of it.
        if (ProcessScan::hangingCount() <= kMaxHangingScans)
            return startScan(_firstScanDone ? now : 0, stuck);
    }
    _firstScanDone = true;
    if (_scan && state == ProcessScan::State::kDone) {
        if (auto result = _scan->take(); result.isWhole)
            _scanned = std::move(result);
    }
    _scan.reset();
    if (_scanWanted && now - _lastScanNs >= kScanDistanceNs) {
        _scanWanted = false;
        startScan(now, /*skip=*/0);
    }
}

void ProcessRecorder::startScan(uint64_t startedNs, pid_t skip)
{
    _lastScanNs = sys::monotonicNs();
    try {
        _scan = ProcessScan::start(_log, startedNs, skip);
    } catch (const std::system_error&) { // no thread to be had: events go on, and it is tried again
        _scanWanted = true;
        _log->onLost(1);
    }
}

bool ProcessRecorder::catchUp()
{
    const auto deadline = std::chrono::steady_clock::now() + kCatchUpPatience;
    MutexLock lock(_lock);
    _askedNs.push_back(sys::monotonicNs());
    const uint64_t mine = _served + _askedNs.size();
    const uint64_t one = 1;
    (void)::write(_wake.get(), &one, sizeof one);
    while (_served < mine) {
        if (!_changed.waitUntil(lock, deadline) && _served < mine) {
            _log->onLost(1); // says that something may be missing
            return false;
        }
    }
    return true;
}

} // namespace vnt
