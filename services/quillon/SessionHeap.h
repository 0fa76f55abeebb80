#pragma once

#include <sys/types.h>

#include "collectors/heap/HeapCollector.h"
#include "platform/base/Mutex.h"

namespace vnt {

/// Where the services of one session meet that need the heap of its target. Owned by the worker; outlives the services.
class SessionHeap {
public:
    /// Told of the target's end, on the heap collector's thread, under this object's lock.
    class ExitObserver {
    public:
        virtual ~ExitObserver() = default;
        virtual void onHeapExiting(HeapView& heap) = 0;
        virtual void onHeapEnded(pid_t pid) = 0;
    };

    /// The collector of the session's target; null before a launch was prepared. Control thread.
    [[nodiscard]] HeapCollector* collector() const { return _collector; }
    void setCollector(HeapCollector* collector) { _collector = collector; }

    /// First bytes of leaked blocks were asked for by whoever launched the target. Set before there is a target.
    [[nodiscard]] bool contentsAtExit() const { return _contentsAtExit; }
    void setContentsAtExit(bool wanted) { _contentsAtExit = wanted; }

    /// At most one; null: none. Waits for a call that is running.
    void setExitObserver(ExitObserver* observer)
    {
        MutexLock lock(_lock);
        _observer = observer;
    }
    void targetExiting(HeapView& heap)
    {
        MutexLock lock(_lock);
        if (_observer)
            _observer->onHeapExiting(heap);
    }
    void targetEnded(pid_t pid)
    {
        MutexLock lock(_lock);
        if (_observer)
            _observer->onHeapEnded(pid);
    }

private:
    HeapCollector* _collector = nullptr; // not owned: the heap recorder's service takes it back before it goes
    bool _contentsAtExit = false;
    Mutex _lock;
    ExitObserver* _observer VNT_GUARDED_BY(_lock) = nullptr;
};

} // namespace vnt
