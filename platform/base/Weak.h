#pragma once

#include "platform/base/Mutex.h"
#include "platform/base/Ref.h"

namespace vnt {

/// Shared between an object and those that hold it weakly; outlives both sides as needed.
class WeakControl final : public RefCounted {
public:
    /// A new reference to the object, or null once its destruction has begun.
    [[nodiscard]] Ref<RefCounted> lock()
    {
        MutexLock guard(_mutex);
        if (_target && _target->tryRetain())
            return Ref<RefCounted>::adopt(_target);
        return nullptr;
    }

    /// Called by the object before its memory goes; waits for a lock() in progress.
    void clear()
    {
        MutexLock guard(_mutex);
        _target = nullptr;
    }

private:
    VNT_MAKE_REF_FRIEND;
    explicit WeakControl(RefCounted* target) : _target(target) { }

    Mutex _mutex;
    RefCounted* _target VNT_GUARDED_BY(_mutex);
};

/// Weak pointer: holds the control block strongly and the object not at all.
template <typename T> class WeakPtr {
public:
    WeakPtr() = default;
    WeakPtr(Ref<WeakControl> control, T* object) : _control(std::move(control)), _object(object) { }

    /// Keeps the object alive for as long as the result lives; test with operator bool.
    class Pinned {
    public:
        Pinned() = default;
        Pinned(Ref<RefCounted> guard, T* object) : _guard(std::move(guard)), _object(_guard ? object : nullptr) { }
        explicit operator bool() const { return _object != nullptr; }
        T* operator->() const { return _object; }
        T* get() const { return _object; }

    private:
        Ref<RefCounted> _guard;
        T* _object = nullptr;
    };

    [[nodiscard]] Pinned lock() const
    {
        if (!_control)
            return {};
        return Pinned(_control->lock(), _object);
    }

    explicit operator bool() const { return static_cast<bool>(_control); }

private:
    Ref<WeakControl> _control;
    T* _object = nullptr;
};

/// Member of an object that others hold weakly. Declare it last, so that it is cleared first, or call
/// clear() at the top of the destructor when base or member destruction must not race with lock().
class WeakAnchor {
public:
    explicit WeakAnchor(RefCounted* target) : _control(makeRef<WeakControl>(target)) { }
    ~WeakAnchor() { clear(); }
    WeakAnchor(const WeakAnchor&) = delete;
    WeakAnchor& operator=(const WeakAnchor&) = delete;

    void clear() { _control->clear(); }

    template <typename T> [[nodiscard]] WeakPtr<T> pointer(T* object) const { return WeakPtr<T>(_control, object); }

private:
    Ref<WeakControl> _control;
};

} // namespace vnt
