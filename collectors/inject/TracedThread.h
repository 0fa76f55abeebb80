#pragma once

#include <sys/types.h>
#include <sys/user.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/base/Status.h"

namespace vnt {

/// Why a traced thread stands still.
struct ThreadStop {
    enum class Kind {
        kInterrupted, ///< by interrupt()
        kGroupStopped, ///< the whole process was stopped by a signal
        kSystemCall, ///< about to enter, or having left one
        kSignal, ///< about to receive `signal`
        kEnded,
        kRuns, ///< it does not stand still: the deadline has passed
    };
    Kind kind = Kind::kRuns;
    int signal = 0;
};

/// One thread under ptrace(2), by PTRACE_SEIZE. Everything from one thread, which ends soon: what could not be given
/// back until then (a thread that never stops) the kernel frees at its end.
class TracedThread {
public:
    using Clock = std::chrono::steady_clock;

    explicit TracedThread(pid_t tid) : _tid(tid) { }
    ~TracedThread(); ///< release(), where it stands still
    TracedThread(const TracedThread&) = delete;
    TracedThread& operator=(const TracedThread&) = delete;

    /// Errors: kDenied, kNotFound.
    Status seize();
    /// Stops it, delivering signals that are on their way. Errors: kTimedOut: it will not stop soon; kNotFound;
    /// kDenied: its process is stopped.
    Status interrupt(Clock::time_point deadline);

    /// Only asks; await() tells when it stands still.
    Status askToStop() const;
    /// From any stop to one at which the kernel takes up interrupted system calls when the thread goes on.
    Status interruptAndContinue(Clock::time_point deadline);

    /// Lets it run for about `span`, then stops it anew. Errors as of interrupt().
    Status runFor(std::chrono::microseconds span, Clock::time_point deadline);
    /// Lets it run to the next beginning or end of a system call. There are no single steps and no breakpoints here:
    /// their trap would kill a target whose tracer has just died.
    ThreadStop runToSystemCall(Clock::time_point deadline, int signal = 0);
    /// Waits on after kRuns.
    ThreadStop await(Clock::time_point deadline);

    Status readRegisters(user_regs_struct& registers) const;
    Status writeRegisters(const user_regs_struct& registers) const;
    /// The processor's extended state, as PTRACE_GETREGSET gives it.
    Status readExtendedState(std::vector<std::byte>& state) const;
    Status writeExtendedState(const std::vector<std::byte>& state) const;
    Status readSignalMask(uint64_t& mask) const;
    Status writeSignalMask(uint64_t mask) const;
    /// Whether it registered restartable sequences (rseq(2)) and is in one.
    [[nodiscard]] bool inRestartableSequence() const;

    /// The thread goes on, untraced.
    void release();
    [[nodiscard]] pid_t tid() const { return _tid; }
    [[nodiscard]] bool standsStill() const { return _still; }

private:
    Status awaitInterruption(Clock::time_point deadline);
    long trace(int request, uintptr_t address = 0, uintptr_t data = 0) const;
    Status traced(int request, uintptr_t address, uintptr_t data, const char* what) const;

    const pid_t _tid;
    bool _seized = false;
    bool _still = false;
    int _pendingSignal = 0; ///< taken from the thread and not yet given back
};

} // namespace vnt
