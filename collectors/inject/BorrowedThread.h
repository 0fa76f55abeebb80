#pragma once

#include <vector>

#include "collectors/inject/RemoteProcess.h"
#include "collectors/inject/SignalFrame.h"
#include "collectors/inject/TracedThread.h"

namespace vnt {

/// Code of the target that a borrowed thread needs: `mov $rt_sigreturn, %eax; syscall`, which ends signal handlers.
struct SignalReturn {
    uint64_t begin = 0;
    uint64_t end = 0;
};

/// A thread that stands still at a safe point and runs functions for us, below its own stack, with signals blocked. At
/// every moment its registers are such that it comes back to where it was if the tracer dies. Use from the tracing
/// thread only. Unless giveBack() succeeded or the call goes on by itself, the destructor gives the thread back.
class BorrowedThread {
public:
    BorrowedThread(RemoteProcess& process, TracedThread& thread, const SignalReturn& code, bool is32Bit)
        : _process(process),
          _thread(thread),
          _code(code)
    {
        _saved.is32Bit = is32Bit;
    }
    ~BorrowedThread();

    /// Saves what the thread was.
    Status borrow();
    /// How much of its stack must be free, in bytes, and how much of that is written to beforehand: a stack that grows
    /// by itself must have grown so far.
    static constexpr uint64_t kRoom = 96 << 10;
    static constexpr uint64_t kRoomWritten = 32 << 10;
    /// The thread is as it was, and runs.
    Status giveBack();

    RemoteProcess& process() { return _process; }
    [[nodiscard]] const SavedThread& saved() const { return _saved; }
    [[nodiscard]] bool is32Bit() const { return _saved.is32Bit; }

    /// Calls a function that may take locks and wait; its answer is lost. At most three arguments. Errors: kTimedOut:
    /// a lock was not free in time and the call was given up, or it goes on by itself; kSystem: it crashed.
    Status call(uint64_t function, const std::vector<uint64_t>& arguments);
    /// After a call that failed: it goes on without us.
    [[nodiscard]] bool goesOn() const { return _goesOn; }
    /// Memory for what the functions read and write, kScratchBytes; valid until giveBack().
    [[nodiscard]] uint64_t scratch() const { return _scratch; }
    static constexpr uint64_t kScratchBytes = 8192;

private:
    [[nodiscard]] int timedWait() const;
    Status begin(uint64_t function, const std::vector<uint64_t>& arguments);
    Status finish();
    struct Patience {
        TracedThread::Clock::time_point deadline;
        bool late = false; ///< the deadline has passed: the next interruption is ours
        bool asking = false; ///< the thread runs, and was asked to stop
        bool extended = false;
    };
    Status askToStop(Patience& patience);
    Status judgeLate(Patience& patience);

    RemoteProcess& _process;
    TracedThread& _thread;
    const SignalReturn _code;
    SavedThread _saved;
    uint64_t _scratch = 0;
    bool _borrowed = false;
    bool _changed = false; ///< its registers are not what they were
    bool _goesOn = false; ///< the thread runs our call without us and gives itself back
};

} // namespace vnt
