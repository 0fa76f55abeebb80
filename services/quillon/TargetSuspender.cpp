#include "services/quillon/TargetSuspender.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>

#include "collectors/inject/SafePoint.h"
#include "platform/base/sys.h"
#include "services/common/ProcFs.h"

namespace vnt {
namespace {

/// Threads may keep appearing while others are stopped; each round stops all that are there.
constexpr int kMaxRounds = 64;
/// A thread in an uninterruptible wait cannot stop; it will before it runs user code again.
constexpr auto kStopDeadline = std::chrono::milliseconds(200);

long traceThread(int request, pid_t tid, unsigned long data = 0)
{
    return ::ptrace(static_cast<__ptrace_request>(request), tid, nullptr, reinterpret_cast<void*>(data));
}

/// Waits until the thread has stopped, ended, or the deadline has passed. Returns the signal that the stop is about to
/// deliver, 0 for none: detaching without it would lose it for the target (ptrace(2), signal-delivery-stop).
int awaitStop(pid_t tid)
{
    const auto deadline = std::chrono::steady_clock::now() + kStopDeadline;
    for (;;) {
        int status = 0;
        const pid_t reported = ::waitpid(tid, &status, __WALL | WNOHANG);
        if (reported == tid) {
            const bool ownStop = (status >> 16) == PTRACE_EVENT_STOP;
            return WIFSTOPPED(status) && !ownStop ? WSTOPSIG(status) : 0;
        }
        if (reported < 0 && errno != EINTR)
            return 0;
        if (std::chrono::steady_clock::now() > deadline)
            return 0;
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
}

/// The line "NAME:\tHEX" of /proc/PID/task/TID/status.
uint64_t signalSet(const std::string& status, const char* name)
{
    const size_t at = status.find(std::string("\n") + name + ":\t");
    return at == std::string::npos ? 0 : std::strtoull(status.c_str() + status.find('\t', at), nullptr, 16);
}

bool hasSignalWaiting(pid_t pid, pid_t tid)
{
    const auto text = sys::readFile("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/status", 8192);
    return !text.ok()
        || ((signalSet(text.value(), "SigPnd") | signalSet(text.value(), "ShdPnd"))
            & ~signalSet(text.value(), "SigBlk"))
        != 0;
}

/// Certain waits end with EINTR when their thread is held still (signal(7)), and many programs do not expect that: they
/// are begun anew, unless a signal waits that may be meant to end them.
void mendWait(pid_t pid, pid_t tid)
{
    constexpr uint64_t kCode32 = 0x23; // selector of 32-bit code, __USER32_CS
    constexpr long kSystemCall64 = 0x050f; // the instructions' bytes: syscall,
    constexpr long kSystemCall32 = 0x80cd; // int $0x80
    user_regs_struct registers{};
    if (::ptrace(PTRACE_GETREGS, tid, nullptr, &registers) != 0)
        return;
    const bool is32Bit = registers.cs == kCode32;
    const auto call = static_cast<int64_t>(registers.orig_rax);
    if (call < 0 || static_cast<int32_t>(registers.rax) != -EINTR || !isBrokenByStop(is32Bit, call)
        || hasSignalWaiting(pid, tid))
        return;
    errno = 0;
    const long code = ::ptrace(PTRACE_PEEKTEXT, tid, reinterpret_cast<void*>(registers.rip - 2), nullptr);
    if (errno != 0 || (code & 0xffff) != (is32Bit ? kSystemCall32 : kSystemCall64))
        return;
    registers.rip -= 2;
    registers.rax = static_cast<uint64_t>(call);
    registers.orig_rax = ~uint64_t{0};
    (void)::ptrace(PTRACE_SETREGS, tid, nullptr, &registers); // a thread that is gone needs it no more
}

} // namespace

TargetSuspender::~TargetSuspender()
{
    if (!_thread.joinable())
        return;
    {
        MutexLock guard(_lock);
        _quit = true;
    }
    _changed.notifyAll();
    _thread.join();
}

void TargetSuspender::run()
{
    MutexLock guard(_lock);
    while (!_quit) {
        if (_work) {
            const auto* work = _work;
            guard.unlock();
            (*work)();
            guard.lock();
            _work = nullptr;
            _changed.notifyAll();
        } else {
            _changed.wait(guard); // no deadline: the destructor wakes it
        }
    }
    guard.unlock();
    while (!_held.empty())
        release(_held.begin()->first);
}

void TargetSuspender::onThread(const std::function<void()>& work)
{
    if (!_thread.joinable()) {
        const sys::SignalBlock block;
        _thread = std::thread([this] { run(); });
    }
    MutexLock guard(_lock);
    _work = &work;
    _changed.notifyAll();
    while (_work)
        _changed.wait(guard); // no deadline: the work itself is bounded
}

Status TargetSuspender::suspend(pid_t pid)
{
    Status status;
    onThread([&] { status = seizeAll(pid); });
    return status;
}

bool TargetSuspender::resume(pid_t pid)
{
    if (!_thread.joinable())
        return false;
    bool held = false;
    onThread([&] {
        held = _held.count(pid) > 0;
        release(pid);
    });
    return held;
}

Status TargetSuspender::seizeAll(pid_t pid)
{
    auto& seized = _held[pid];
    for (int round = 0; round < kMaxRounds; ++round) {
        auto threads = procfs::threadsOf(pid);
        if (!threads.ok())
            break;
        size_t added = 0;
        for (const pid_t tid : threads.value()) {
            if (std::any_of(seized.begin(), seized.end(), [tid](const HeldThread& held) { return held.tid == tid; }))
                continue;
            if (traceThread(PTRACE_SEIZE, tid) != 0) {
                const int refusal = errno;
                const auto stat = procfs::threadStat(pid, tid);
                if (refusal == ESRCH || !stat.ok() || stat.value().state == 'Z' || stat.value().state == 'X')
                    continue; // it has ended; a first thread stays until the others do
                errno = refusal;
                const Status refused = Status::fromErrno(errno, "ptrace of process " + std::to_string(pid));
                release(pid);
                return refused;
            }
            ++added;
            traceThread(PTRACE_INTERRUPT, tid);
            seized.push_back({tid, awaitStop(tid)});
        }
        if (added == 0)
            break;
    }
    if (!seized.empty())
        return {};
    _held.erase(pid);
    return Status(Code::kNotFound, "process " + std::to_string(pid) + " has ended");
}

void TargetSuspender::release(pid_t pid)
{
    const auto held = _held.find(pid);
    if (held == _held.end())
        return;
    for (const HeldThread& thread : held->second) {
        if (thread.signal == 0)
            mendWait(pid, thread.tid);
        // A thread that had not stopped in time is stopped now or has ended; both leave nothing traced behind.
        if (traceThread(PTRACE_DETACH, thread.tid, static_cast<unsigned long>(thread.signal)) != 0 && errno == ESRCH) {
            const int late = awaitStop(thread.tid);
            traceThread(PTRACE_DETACH, thread.tid, static_cast<unsigned long>(late));
        }
    }
    _held.erase(held);
}

} // namespace vnt
