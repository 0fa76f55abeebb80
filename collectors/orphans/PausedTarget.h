#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/base/Status.h"

namespace vnt::orphans {

/// One thread of a target that stands still.
struct PausedThread {
    pid_t tid = 0;
    bool hasRegisters = false;
    bool is32Bit = false;
    uint64_t stackPointer = 0; ///< 0: not known
    uint64_t threadPointer = 0; ///< of its thread-local storage; 0: not known
    /// All registers as words of the target's width, vectors included: each may be a pointer.
    std::vector<uint64_t> words;
};

/// A process whose threads are all held still with ptrace(2): its parent sees nothing, and if this process is killed
/// it goes on. ptrace belongs to one thread: made, used and destroyed on one that ends right after, because a thread of
/// the target that is in an uninterruptible wait (vfork(2)) is let go of only then. Cost: some 100 us a thread.
class PausedTarget {
public:
    /// Errors: kNotFound when it has ended, kDenied when it is traced by another or the kernel refuses; the message
    /// names which. Nothing is held then.
    static Result<std::unique_ptr<PausedTarget>> pause(pid_t pid);
    ~PausedTarget(); ///< lets it go on
    PausedTarget(const PausedTarget&) = delete;
    PausedTarget& operator=(const PausedTarget&) = delete;

    [[nodiscard]] const std::vector<PausedThread>& threads() const { return _threads; }
    /// Lets it go on. A target that was stopped before stays stopped.
    void resume();
    /// From the first thread stopped to all released; 0 before that.
    [[nodiscard]] uint64_t pauseNs() const { return _pauseNs; }

private:
    explicit PausedTarget(pid_t pid) : _pid(pid) { }
    Status seizeAll();
    Status seizeNewThreads(size_t& added);
    void awaitStops(size_t first);

    struct Held {
        pid_t tid = 0;
        int signal = 0; ///< stopped on its way to this signal, which it gets when it goes on
        bool stopped = false;
        bool ended = false;
    };
    const pid_t _pid;
    std::vector<Held> _held;
    std::vector<PausedThread> _threads;
    uint64_t _begunNs = 0;
    uint64_t _pauseNs = 0;
};

} // namespace vnt::orphans
