#include "collectors/census/ProcessCensus.h"

#include <fcntl.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/base/sys.h"

namespace vnt {

using census::Field;
using census::LostCause;
using census::ProcessRecord;

namespace {

constexpr size_t kBatchBytes = 48 << 10;
constexpr uint64_t kFullSweepEvery = 16; // what changes without the process's doing (memory swapped out) shows then
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr uint64_t kTickNs = 10'000'000; // beginnings read from /proc are whole ticks, those of events exact

uint64_t threadCpuNs()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

uint64_t& count(std::array<uint64_t, census::kLostCauses>& counts, LostCause cause)
{
    return counts[static_cast<size_t>(cause)];
}

} // namespace

ProcessCensus::~ProcessCensus()
{
    _peerGone.store(true, std::memory_order_relaxed);
    stop();
}

Status ProcessCensus::start()
{
    if (_thread.joinable())
        return {};
    if (!_wake.valid()) {
        ASSIGN_OR_RETURN(_wake, sys::makeEventFd());
    }
    auto events = ProcessEvents::open();
    if (events.ok()) {
        _events.emplace(events.take());
        // Refused to most users: then the use of what ends too soon to be looked at stays unknown, and is counted.
        if (auto exits = ExitStatistics::open(); exits.ok())
            _exits.emplace(exits.take());
    }
    if (!_writer) {
        census::SessionRecord session{.intervalNs = _intervalNs,
                                      .flags = _events ? 0u : census::SessionRecord::kNoEvents,
                                      .processors = static_cast<uint32_t>(::sysconf(_SC_NPROCESSORS_ONLN)),
                                      .memoryKiB = _reader.memoryKiB()};
        if (!sys::openFile("/proc/1/io", O_RDONLY).ok())
            session.flags |= census::SessionRecord::kOthersLimited;
        _writer.emplace(session);
    }
    _beganNs = _nextSweepNs = sys::monotonicNs();
    _stopping.store(false, std::memory_order_relaxed);
    const sys::SignalBlock block;
    _thread = std::thread([this] { run(); });
    return events.status();
}

void ProcessCensus::stop()
{
    if (!_thread.joinable())
        return;
    _stopping.store(true, std::memory_order_relaxed);
    const uint64_t one = 1;
    (void)::write(_wake.get(), &one, sizeof one); // a full counter wakes as well
    _thread.join();
    _events.reset();
    _exits.reset();
}

std::chrono::milliseconds ProcessCensus::untilNextSweep() const
{
    const uint64_t now = sys::monotonicNs();
    return std::chrono::milliseconds(_nextSweepNs <= now ? 0 : (_nextSweepNs - now + kNsPerMs - 1) / kNsPerMs);
}

void ProcessCensus::run()
{
    while (!_stopping.load(std::memory_order_relaxed)) {
        if (sys::monotonicNs() >= _nextSweepNs) {
            sweep();
            flush(/*wait=*/false);
            // A sweep that took longer than its interval pushes the next ones back; they are counted.
            const uint64_t now = sys::monotonicNs();
            _nextSweepNs += _intervalNs;
            if (_nextSweepNs <= now) {
                const uint64_t leftOut = (now - _nextSweepNs) / _intervalNs + 1;
                _sweepsLeftOut += leftOut;
                _nextSweepNs += leftOut * _intervalNs;
            }
        }
        pollfd fds[] = {{_wake.get(), POLLIN, 0}, {_events ? _events->descriptor() : -1, POLLIN, 0}};
        (void)sys::pollFds(fds, untilNextSweep());
        if (fds[1].revents != 0 && !_events->drain([this](const ProcessEvents::Event& event) { onEvent(event); })) {
            ++count(_lost, LostCause::kEventsOverrun);
            _nextSweepNs = sys::monotonicNs(); // finds what was not told
        }
    }
    uint64_t woken = 0;
    (void)sys::readSome(_wake.get(), &woken, sizeof woken); // for the next start
    if (_peerGone.load(std::memory_order_relaxed))
        return;
    if (_events)
        (void)_events->drain([this](const ProcessEvents::Event& event) { onEvent(event); });
    sweep();
    flush(/*wait=*/true);
    _cpuBeforeNs += threadCpuNs();
}

void ProcessCensus::sweep()
{
    const auto pids = _reader.processes();
    auto machine = _reader.machine();
    if (!pids.ok() || !machine.ok()) {
        _sink.reportProblem(pids.ok() ? machine.status().message() : pids.status().message());
        return;
    }
    machine.value().processes = static_cast<uint32_t>(pids.value().size());
    const uint64_t nowNs = sys::monotonicNs();
    ++_sweeps;
    _writer->addSweep(nowNs, machine.value());
    const bool lookAtAll = _sweeps % kFullSweepEvery == 0;
    for (const pid_t pid : pids.value())
        visit(pid, lookAtAll);
    for (auto entry = _tracked.begin(); entry != _tracked.end();) {
        Tracked& tracked = entry->second;
        if (tracked.sweep == _sweeps) {
            ++entry;
            continue;
        }
        // The last thread's end may have been told before its first one's: then this is where the process ends.
        if (const auto life = _exits && !tracked.ended ? _exits->take(entry->first) : std::nullopt)
            tellLife(tracked, *life, nowNs);
        end(tracked, nowNs, tracked.leaderStatus);
        entry = _tracked.erase(entry);
    }
    tellLost();
    _writer->addCost(sys::monotonicNs(), _cpuBeforeNs + threadCpuNs(), _sweeps, _sweepsLeftOut);
}

void ProcessCensus::visit(pid_t pid, bool lookAtAll)
{
    const auto found = _tracked.find(pid);
    if (found != _tracked.end()) {
        Tracked& tracked = found->second;
        const int64_t cpuNs = _reader.cpuNs(pid);
        const bool isStill = cpuNs == at(tracked.told, Field::kCpuNs) && tracked.looked && !lookAtAll;
        if (tracked.ended || (isStill && tracked.generation == _generation)) {
            tracked.sweep = _sweeps;
            return;
        }
    }
    auto looked = _reader.look(pid);
    if (!looked.ok())
        return; // ended while we looked; the sweep's end tells it
    ProcessRecord& process = looked.value().process;
    if (found != _tracked.end()) {
        Tracked& tracked = found->second;
        const uint64_t known = tracked.process.startNs;
        if (std::max(known, process.startNs) - std::min(known, process.startNs) <= 2 * kTickNs) {
            tracked.sweep = _sweeps;
            if (tracked.process.name != process.name || tracked.process.executable != process.executable) {
                tracked.process.name = process.name;
                tracked.process.executable = process.executable;
                if (tracked.generation == _generation)
                    _writer->addRenamed(sys::monotonicNs(), tracked.number, process.name, process.executable);
            }
            tellUsage(tracked, looked.value().usage);
            return;
        }
        end(tracked, process.startNs, /*status=*/-1); // its number was given to another
        _tracked.erase(found);
    }
    const auto startedNs = process.startNs > _beganNs ? std::optional(process.startNs) : std::nullopt;
    Tracked& tracked = begin(pid, std::move(process), startedNs);
    tellUsage(tracked, looked.value().usage);
}

ProcessCensus::Tracked& ProcessCensus::begin(pid_t pid, ProcessRecord process, std::optional<uint64_t> startedNs)
{
    Tracked& tracked = _tracked[pid];
    tracked = {};
    tracked.process = std::move(process);
    tracked.sweep = _sweeps;
    const uint32_t number = tell(tracked);
    tracked.started = startedNs.has_value();
    if (startedNs)
        _writer->addStarted(*startedNs, number);
    return tracked;
}

uint32_t ProcessCensus::tell(Tracked& tracked)
{
    if (tracked.generation != _generation) {
        tracked.number = _writer->addProcess(tracked.process);
        tracked.generation = _generation;
        tracked.told = {};
    }
    return tracked.number;
}

void ProcessCensus::tellUsage(Tracked& tracked, const census::Usage& usage)
{
    const uint32_t number = tell(tracked);
    _writer->addUsage(number, tracked.told, usage);
    tracked.told = usage;
    tracked.looked = true;
    if (_writer->sizeBytes() > kBatchBytes)
        flush(/*wait=*/false);
}

void ProcessCensus::end(Tracked& tracked, uint64_t timeNs, int64_t status)
{
    if (tracked.ended)
        return;
    tracked.ended = true;
    _writer->addEnded(timeNs, tell(tracked), status);
}

void ProcessCensus::onEvent(const ProcessEvents::Event& event)
{
    const auto found = _tracked.find(event.pid);
    switch (event.kind) {
    case ProcessEvents::Event::Kind::kStarted:
        onStarted(event);
        break;
    case ProcessEvents::Event::Kind::kExecuted:
        if (found == _tracked.end() || !_reader.readName(event.pid, found->second.process).ok())
            break;
        found->second.looked = false; // the next sweep looks at what it has become
        _writer->addRenamed(event.timeNs, tell(found->second), found->second.process.name,
                            found->second.process.executable);
        break;
    case ProcessEvents::Event::Kind::kEnded:
        onEnded(event);
        break;
    case ProcessEvents::Event::Kind::kThreadEnded:
        if (found != _tracked.end() && found->second.leaderGone)
            onEnded(event); // perhaps the last one
        break;
    }
    if (_writer->sizeBytes() > kBatchBytes)
        flush(/*wait=*/false);
}

/// Nothing is read yet: most that begin become another program at once, or end.
void ProcessCensus::onStarted(const ProcessEvents::Event& event)
{
    const auto found = _tracked.find(event.pid);
    if (found != _tracked.end()) {
        // Told by a sweep that came before its event, or one whose end was not told.
        Tracked& tracked = found->second;
        if (tracked.process.startNs + kTickNs * 2 > event.timeNs && !tracked.ended) {
            if (!std::exchange(tracked.started, true))
                _writer->addStarted(event.timeNs, tell(tracked));
            return;
        }
        end(found->second, event.timeNs, /*status=*/-1);
        _tracked.erase(found);
    }
    ProcessRecord process;
    const auto parent = _tracked.find(event.parent);
    if (parent != _tracked.end())
        process = parent->second.process; // a fork is what its parent is
    process.pid = static_cast<uint32_t>(event.pid);
    process.parent = static_cast<uint32_t>(event.parent);
    process.startNs = event.timeNs;
    begin(event.pid, std::move(process), event.timeNs);
}

void ProcessCensus::onEnded(const ProcessEvents::Event& event)
{
    const auto found = _tracked.find(event.pid);
    if (found == _tracked.end() || found->second.ended)
        return;
    Tracked& tracked = found->second;
    // Until its parent takes note of it, all but its memory can still be read.
    auto looked = _reader.look(event.pid);
    if (looked.ok() && at(looked.value().usage, Field::kThreads) > 1) {
        tracked.leaderGone = true;
        tracked.leaderStatus = event.status;
        return;
    }
    const auto life = _exits ? _exits->take(event.pid) : std::nullopt; // also to forget it
    if (looked.ok()) {
        // What is being taken note of at this moment reads as nothing: sums never fall.
        census::Usage& usage = looked.value().usage;
        const int64_t state = at(usage, Field::kState);
        for (size_t field = 0; field < census::kFields; ++field)
            usage[field] = std::max({usage[field], tracked.told[field], life ? life->usage[field] : 0});
        at(usage, Field::kState) = state;
        for (const Field now :
             {Field::kResidentKiB, Field::kSharedKiB, Field::kSwapKiB, Field::kThreads, Field::kDescriptors})
            at(usage, now) = at(tracked.told, now);
        tellUsage(tracked, usage);
    } else if (life) {
        tellLife(tracked, *life, event.timeNs);
    } else if (!tracked.looked) {
        ++count(_lost, LostCause::kUnread);
    }
    end(tracked, event.timeNs, event.status);
    if (!looked.ok())
        _tracked.erase(event.pid);
}

void ProcessCensus::tellLife(Tracked& tracked, const ExitStatistics::Life& life, uint64_t timeNs)
{
    // Of a process older than the census, the threads that ended before it are not in there.
    census::Usage usage = tracked.told;
    for (size_t field = 0; field < census::kFields; ++field)
        usage[field] = std::max(usage[field], life.usage[field]);
    const bool isNameKnown = tracked.looked;
    tellUsage(tracked, usage);
    if (isNameKnown || life.name.empty() || tracked.process.name.starts_with(life.name))
        return;
    tracked.process.name = life.name; // it became another program, and ended before that could be read
    tracked.process.executable.clear();
    _writer->addRenamed(timeNs, tell(tracked), tracked.process.name, tracked.process.executable);
}

void ProcessCensus::tellLost()
{
    for (size_t cause = 0; cause < census::kLostCauses; ++cause) {
        if (_lost[cause] != _lostTold[cause])
            _writer->addLost(sys::monotonicNs(), static_cast<LostCause>(cause), _lost[cause]);
        _lostTold[cause] = _lost[cause];
    }
}

void ProcessCensus::flush(bool wait)
{
    if (_writer->empty())
        return;
    const auto message = _writer->message();
    const Status status = wait ? _sink.send(message) : _sink.trySend(message);
    if (status.ok()) {
        _writer->messageSent();
        return;
    }
    if (status.code() == Code::kPeerGone)
        _peerGone.store(true, std::memory_order_relaxed);
    count(_lost, LostCause::kBatchDropped) += _writer->pendingUsages();
    _lostTold = {}; // what the batch said of losses is lost too
    _writer->messageDropped();
    ++_generation;
}

} // namespace vnt
