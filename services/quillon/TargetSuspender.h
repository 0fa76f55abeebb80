#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <thread>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/base/Status.h"

namespace vnt {

/// Holds running processes still with ptrace(2): their parents see nothing, and a worker that is killed frees them.
/// ptrace belongs to one thread, so all of it happens on this object's own. Driven by the control thread.
class TargetSuspender {
public:
    TargetSuspender() = default;
    ~TargetSuspender(); ///< resumes what is still held

    /// Stops every thread of `pid`. Errors: kDenied when it is traced already or the machine forbids it, kNotFound.
    Status suspend(pid_t pid);
    /// True when the process was held by suspend() and runs again now.
    bool resume(pid_t pid);

private:
    void run();
    void onThread(const std::function<void()>& work);
    Status seizeAll(pid_t pid);
    void release(pid_t pid);

    Mutex _lock;
    Condition _changed;
    const std::function<void()>* _work VNT_GUARDED_BY(_lock) = nullptr; // of the caller that waits in onThread()
    bool _quit VNT_GUARDED_BY(_lock) = false;
    struct HeldThread {
        pid_t tid = 0;
        int signal = 0; // stopped on its way to this signal, which it gets when it goes on
    };
    std::map<pid_t, std::vector<HeldThread>> _held; // pid -> its seized threads; only on the tracing thread
    std::thread _thread; // started by the first suspend()
};

} // namespace vnt
