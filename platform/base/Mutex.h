#pragma once

#include <condition_variable>
#include <mutex>

// clang's -Wthread-safety checks these marks; under g++ they are empty.
#if defined(__clang__)
#define VNT_ATTRIBUTE(x) __attribute__((x))
#else
#define VNT_ATTRIBUTE(x)
#endif
#define VNT_CAPABILITY(x) VNT_ATTRIBUTE(capability(x))
#define VNT_SCOPED_CAPABILITY VNT_ATTRIBUTE(scoped_lockable)
#define VNT_GUARDED_BY(x) VNT_ATTRIBUTE(guarded_by(x))
#define VNT_REQUIRES(...) VNT_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VNT_EXCLUDES(...) VNT_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VNT_ACQUIRE(...) VNT_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VNT_RELEASE(...) VNT_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VNT_NO_THREAD_SAFETY_ANALYSIS VNT_ATTRIBUTE(no_thread_safety_analysis)

namespace vnt {

class VNT_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() VNT_ACQUIRE() { _mutex.lock(); }
    void unlock() VNT_RELEASE() { _mutex.unlock(); }
    std::mutex& native() { return _mutex; }

private:
    std::mutex _mutex;
};

class VNT_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) VNT_ACQUIRE(mutex) : _lock(mutex.native()) { }
    ~MutexLock() VNT_RELEASE() { }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() VNT_RELEASE() { _lock.unlock(); }
    void lock() VNT_ACQUIRE() { _lock.lock(); }
    std::unique_lock<std::mutex>& native() { return _lock; }

private:
    std::unique_lock<std::mutex> _lock;
};

/// Condition variable used with MutexLock. Every wait loops on its condition.
class Condition {
public:
    void wait(MutexLock& lock) { _condition.wait(lock.native()); }

    template <typename Clock, typename Duration>
    bool waitUntil(MutexLock& lock, const std::chrono::time_point<Clock, Duration>& deadline)
    {
        return _condition.wait_until(lock.native(), deadline) == std::cv_status::no_timeout;
    }

    void notifyOne() { _condition.notify_one(); }
    void notifyAll() { _condition.notify_all(); }

private:
    std::condition_variable _condition;
};

} // namespace vnt
