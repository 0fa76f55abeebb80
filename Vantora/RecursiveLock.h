#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/base/Check.h"
#include "platform/base/Ref.h"

namespace vnt {

/// The session lock. Recursive; may be held for ever and destroyed while held (a failed save and the asynchronous
/// stop do that on purpose), which the standard mutexes forbid. Counted, so that who locks it keeps it.
class RecursiveLock final : public RefCounted {
public:
    void lock()
    {
        const auto self = std::this_thread::get_id();
        std::unique_lock guard(_mutex);
        // No deadline: an operation in progress may take as long as its target does.
        _free.wait(guard, [&] { return _depth == 0 || _owner == self; });
        _owner = self;
        ++_depth;
    }

    void unlock()
    {
        std::unique_lock guard(_mutex);
        VNT_CHECK(_depth > 0 && _owner == std::this_thread::get_id());
        if (--_depth == 0) {
            _owner = {};
            guard.unlock();
            _free.notify_one();
        }
    }

private:
    VNT_MAKE_REF_FRIEND;
    RecursiveLock() = default;

    std::mutex _mutex; // guards the two below, never held while waiting for the lock's owner
    std::condition_variable _free;
    std::thread::id _owner;
    int _depth = 0;
};

/// Holds the session lock for a scope, and the lock object with it; leaveLocked() keeps it held for good.
class SessionLock {
public:
    explicit SessionLock(Ref<RecursiveLock> lock) : _lock(std::move(lock)) { _lock->lock(); }
    ~SessionLock()
    {
        if (_lock)
            _lock->unlock();
    }
    SessionLock(const SessionLock&) = delete;
    SessionLock& operator=(const SessionLock&) = delete;

    void leaveLocked() { _lock = nullptr; }

private:
    Ref<RecursiveLock> _lock;
};

} // namespace vnt
