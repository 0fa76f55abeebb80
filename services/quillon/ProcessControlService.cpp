#include "services/quillon/ProcessControlService.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include "platform/base/sys.h"
#include "services/common/ProcFs.h"
#include "services/quillon/Arguments.h"

namespace vnt {
namespace {

constexpr size_t kMaxObserved = 4096;

} // namespace

ProcessControlService::ProcessControlService(Ref<ServiceChannel> channel, pid_t clientPid, AccessGuard& guard)
    : _channel(std::move(channel)),
      _clientPid(clientPid),
      _guard(guard)
{
}

ProcessControlService::~ProcessControlService() { onClose(); }

Ref<Object> ProcessControlService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    const pid_t pid = pidArgument(*arguments, 0);
    if (selector == "startObservingPid:")
        startObserving(pid);
    else if (selector == "stopObservingPid:")
        stopObserving(pid);
    else if (untouchable(pid) && (selector == "suspendPid:" || selector == "resumePid:" || selector == "killPid:"))
        return Number::withBool(true);
    else if (selector == "suspendPid:")
        suspend(pid);
    else if (selector == "resumePid:")
        resume(pid);
    else if (selector == "killPid:")
        kill(pid);
    else
        throwUnknownSelector(selector);
    return Number::withBool(true);
}

int ProcessControlService::pidFdOf(pid_t pid)
{
    auto found = _pidFds.find(pid);
    if (found != _pidFds.end())
        return found->second.get();
    auto pidFd = sys::openPidFd(pid);
    if (!pidFd.ok())
        throw Exception("VntNoProcess", "No current process has pid " + std::to_string(pid));
    return _pidFds.emplace(pid, pidFd.take()).first->second.get();
}

void ProcessControlService::startObserving(pid_t pid)
{
    if (pid <= 0)
        return;
    UniqueFd own(::fcntl(pidFdOf(pid), F_DUPFD_CLOEXEC, 3));
    if (!own.valid())
        throw Exception("VntSystemError",
                        Status::fromErrno(errno, "observing process " + std::to_string(pid)).message());
    {
        MutexLock guard(_lock);
        if (_observed.size() >= kMaxObserved)
            throw Exception("VntLimit", "too many processes are observed");
        _observed[pid] = std::move(own);
        if (_observer.joinable()) {
            wakeObserver();
            return;
        }
    }
    auto wake = sys::makeEventFd();
    if (!wake.ok())
        throw Exception("VntSystemError", wake.status().message());
    _wake = wake.take();
    const sys::SignalBlock block;
    _observer = std::thread([this] { observe(); });
}

void ProcessControlService::stopObserving(pid_t pid)
{
    MutexLock guard(_lock);
    if (_observed.erase(pid) > 0)
        wakeObserver();
}

void ProcessControlService::wakeObserver()
{
    const uint64_t one = 1;
    (void)sys::writeFully(_wake.get(), &one, sizeof one); // a full counter wakes too
}

/// A pidfd is readable from the moment its process is a zombie, whoever its parent is (pidfd_open(2)).
void ProcessControlService::observe()
{
    MutexLock guard(_lock);
    while (!_quit) {
        std::vector<pollfd> waits{{_wake.get(), POLLIN, 0}};
        std::vector<pid_t> pids{0};
        for (const auto& [pid, pidFd] : _observed) {
            waits.push_back({pidFd.get(), POLLIN, 0});
            pids.push_back(pid);
        }
        guard.unlock();
        // No deadline: onClose() wakes it. A descriptor erased meanwhile has been noticed through _wake.
        (void)sys::pollFds(waits, std::chrono::milliseconds(-1));
        guard.lock();
        uint64_t ignored = 0;
        if (waits[0].revents)
            (void)::read(_wake.get(), &ignored, sizeof ignored); // only empties the counter
        for (size_t i = 1; i < waits.size(); ++i) {
            if (!(waits[i].revents & (POLLIN | POLLHUP)) || _observed.erase(pids[i]) == 0)
                continue;
            const auto arguments = Array::create({Number::withInt64(pids[i])});
            (void)_channel->sendCallback("pidDiedCallback:", *arguments); // a client that is gone needs no report
        }
    }
}

void ProcessControlService::suspend(pid_t pid)
{
    const int pidFd = pidFdOf(pid); // first: from here on it is this process that is looked at
    _guard.demand(pid, AccessGuard::Reach::kAnalyse);
    const auto stat = procfs::processStat(pid);
    if (stat.ok() && stat.value().state == 'T') {
        _stoppedBefore.insert(pid); // not by us: it stays so
        return;
    }
    const Status held = _suspender.suspend(pid);
    if (held.ok() || held.code() == Code::kNotFound)
        return;
    if (!stat.ok() || stat.value().state == 't' || !sys::signalPidFd(pidFd, SIGSTOP).ok())
        return; // a debugger holds it, or it is not ours to stop: it is recorded while it runs
    _stoppedBySignal.insert(pid);
}

void ProcessControlService::resume(pid_t pid)
{
    if (_suspender.resume(pid) || _stoppedBefore.erase(pid) > 0)
        return;
    // Stopped by us, or launched suspended by the client.
    (void)pidFdOf(pid);
    _guard.demand(pid, AccessGuard::Reach::kAnalyse);
    _stoppedBySignal.erase(pid);
    signal(pid, SIGCONT);
}

void ProcessControlService::kill(pid_t pid)
{
    (void)pidFdOf(pid);
    _guard.demand(pid, AccessGuard::Reach::kKill);
    signal(pid, SIGKILL);
    _suspender.resume(pid);
}

void ProcessControlService::signal(pid_t pid, int number)
{
    const Status sent = sys::signalPidFd(pidFdOf(pid), number);
    if (!sent.ok() && sent.code() != Code::kNotFound) // one that has ended needs no signal
        throw Exception("VntSystemError", sent.message());
}

void ProcessControlService::onClose()
{
    if (_observer.joinable()) {
        {
            MutexLock guard(_lock);
            _quit = true;
            wakeObserver();
        }
        _observer.join();
    }
    for (const pid_t pid : _stoppedBySignal)
        (void)sys::signalPidFd(_pidFds[pid].get(), SIGCONT); // it may have ended
    _stoppedBySignal.clear();
}

} // namespace vnt
