#include "collectors/inject/TracedThread.h"

#include <elf.h>
#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace vnt {
namespace {

constexpr size_t kLargestExtendedState = 16384; // 2.7 KiB with AVX-512, 11 KiB with tiles
constexpr useconds_t kLookAgainUs = 20;
constexpr int kLooksWithoutSleep = 50; // a system call is often over before the first sleep would begin
constexpr int kGetRseqConfiguration = 0x420f; // PTRACE_GET_RSEQ_CONFIGURATION of <linux/ptrace.h>, since Linux 5.13

struct RseqConfiguration { // struct ptrace_rseq_configuration
    uint64_t address;
    uint32_t size;
    uint32_t signature;
    uint32_t flags;
    uint32_t pad;
};

ThreadStop stopOf(int status)
{
    if (!WIFSTOPPED(status))
        return {ThreadStop::Kind::kEnded, 0};
    const int signal = WSTOPSIG(status);
    if (status >> 16 == PTRACE_EVENT_STOP)
        return {signal == SIGTRAP ? ThreadStop::Kind::kInterrupted : ThreadStop::Kind::kGroupStopped, 0};
    if (signal == (SIGTRAP | 0x80)) // PTRACE_O_TRACESYSGOOD
        return {ThreadStop::Kind::kSystemCall, 0};
    return {ThreadStop::Kind::kSignal, signal};
}

} // namespace

TracedThread::~TracedThread() { release(); }

long TracedThread::trace(int request, uintptr_t address, uintptr_t data) const
{
    return ::ptrace(static_cast<__ptrace_request>(request), _tid, reinterpret_cast<void*>(address),
                    reinterpret_cast<void*>(data));
}

Status TracedThread::traced(int request, uintptr_t address, uintptr_t data, const char* what) const
{
    if (trace(request, address, data) >= 0)
        return {};
    if (errno == ESRCH)
        return Status(Code::kNotFound, "the thread has ended");
    return Status::fromErrno(errno, what);
}

Status TracedThread::seize()
{
    RETURN_IF_ERROR(traced(PTRACE_SEIZE, 0, PTRACE_O_TRACESYSGOOD, "tracing it"));
    _seized = true;
    return {};
}

ThreadStop TracedThread::await(Clock::time_point deadline)
{
    for (int looks = 0;; ++looks) {
        int status = 0;
        const pid_t reported = ::waitpid(_tid, &status, __WALL | __WNOTHREAD | WNOHANG);
        if (reported == _tid) {
            const ThreadStop stop = stopOf(status);
            _still = stop.kind != ThreadStop::Kind::kEnded;
            _seized = _still;
            if (stop.kind == ThreadStop::Kind::kSignal)
                _pendingSignal = stop.signal;
            return stop;
        }
        if (reported < 0 && errno != EINTR) {
            _still = _seized = false;
            return {ThreadStop::Kind::kEnded, 0};
        }
        if (Clock::now() > deadline)
            return {ThreadStop::Kind::kRuns, 0};
        if (looks > kLooksWithoutSleep)
            ::usleep(kLookAgainUs);
        else
            ::sched_yield();
    }
}

Status TracedThread::askToStop() const { return traced(PTRACE_INTERRUPT, 0, 0, "stopping a thread"); }

Status TracedThread::interrupt(Clock::time_point deadline)
{
    RETURN_IF_ERROR(askToStop());
    return awaitInterruption(deadline);
}

Status TracedThread::interruptAndContinue(Clock::time_point deadline)
{
    RETURN_IF_ERROR(askToStop());
    _still = false;
    RETURN_IF_ERROR(traced(PTRACE_CONT, 0, 0, "continuing a thread"));
    return awaitInterruption(deadline);
}

Status TracedThread::awaitInterruption(Clock::time_point deadline)
{
    for (;;) {
        const ThreadStop stop = await(deadline);
        switch (stop.kind) {
        case ThreadStop::Kind::kInterrupted:
            return {};
        case ThreadStop::Kind::kGroupStopped:
            return Status(Code::kDenied, "it is stopped");
        case ThreadStop::Kind::kEnded:
            return Status(Code::kNotFound, "the thread has ended");
        case ThreadStop::Kind::kRuns:
            return Status(Code::kTimedOut, "a thread does not stop");
        default: // on its way to a signal, whose handler it enters; the stop follows at once
            _still = false;
            _pendingSignal = 0;
            RETURN_IF_ERROR(traced(PTRACE_CONT, 0, static_cast<uintptr_t>(stop.signal), "continuing a thread"));
        }
    }
}

Status TracedThread::runFor(std::chrono::microseconds span, Clock::time_point deadline)
{
    _still = false;
    RETURN_IF_ERROR(traced(PTRACE_CONT, 0, 0, "continuing a thread"));
    ::usleep(static_cast<useconds_t>(span.count()));
    return interrupt(deadline);
}

ThreadStop TracedThread::runToSystemCall(Clock::time_point deadline, int signal)
{
    _still = false;
    _pendingSignal = 0;
    if (trace(PTRACE_SYSCALL, 0, static_cast<uintptr_t>(signal)) != 0)
        return {ThreadStop::Kind::kEnded, 0};
    return await(deadline);
}

Status TracedThread::readRegisters(user_regs_struct& registers) const
{
    return traced(PTRACE_GETREGS, 0, reinterpret_cast<uintptr_t>(&registers), "reading registers");
}

Status TracedThread::writeRegisters(const user_regs_struct& registers) const
{
    return traced(PTRACE_SETREGS, 0, reinterpret_cast<uintptr_t>(&registers), "writing registers");
}

Status TracedThread::readExtendedState(std::vector<std::byte>& state) const
{
    state.resize(kLargestExtendedState);
    iovec buffer{state.data(), state.size()};
    RETURN_IF_ERROR(
        traced(PTRACE_GETREGSET, NT_X86_XSTATE, reinterpret_cast<uintptr_t>(&buffer), "reading extended registers"));
    state.resize(buffer.iov_len);
    return {};
}

Status TracedThread::writeExtendedState(const std::vector<std::byte>& state) const
{
    iovec buffer{const_cast<std::byte*>(state.data()), state.size()};
    return traced(PTRACE_SETREGSET, NT_X86_XSTATE, reinterpret_cast<uintptr_t>(&buffer), "writing extended registers");
}

Status TracedThread::readSignalMask(uint64_t& mask) const
{
    return traced(PTRACE_GETSIGMASK, sizeof mask, reinterpret_cast<uintptr_t>(&mask), "reading the signal mask");
}

Status TracedThread::writeSignalMask(uint64_t mask) const
{
    return traced(PTRACE_SETSIGMASK, sizeof mask, reinterpret_cast<uintptr_t>(&mask), "writing the signal mask");
}

bool TracedThread::inRestartableSequence() const
{
    RseqConfiguration configuration{};
    if (trace(kGetRseqConfiguration, sizeof configuration, reinterpret_cast<uintptr_t>(&configuration)) <= 0
        || configuration.address == 0)
        return false;
    constexpr uintptr_t kSequenceOffset = 8; // struct rseq, rseq_cs
    errno = 0;
    const long sequence = trace(PTRACE_PEEKDATA, configuration.address + kSequenceOffset);
    return errno == 0 && sequence != 0;
}

void TracedThread::release()
{
    if (!_seized || !_still)
        return;
    (void)trace(PTRACE_DETACH, 0, static_cast<uintptr_t>(_pendingSignal)); // gone already is fine
    _seized = _still = false;
}

} // namespace vnt
