#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace vnt {

/// Base of every object with an intrusive reference count. The count starts at 1 and is adopted by
/// makeRef(). Any thread may retain and release; the last release runs the destructor on its thread.
class RefCounted {
public:
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;

    void retain() const noexcept { _refCount.fetch_add(1, std::memory_order_relaxed); }

    void release() const noexcept
    {
        // acq_rel: all uses by other threads happen before the destructor.
        if (_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

    /// Retains unless the count has already reached zero. Only for WeakControl, which guarantees that
    /// the memory is still there while it asks.
    [[nodiscard]] bool tryRetain() const noexcept
    {
        uint32_t count = _refCount.load(std::memory_order_relaxed);
        while (count != 0) {
            if (_refCount.compare_exchange_weak(count, count + 1, std::memory_order_acq_rel, std::memory_order_relaxed))
                return true;
        }
        return false;
    }

    /// For tests and diagnostics only: the value may be old by the time it is read.
    [[nodiscard]] uint32_t refCountForTesting() const noexcept { return _refCount.load(std::memory_order_relaxed); }

protected:
    RefCounted() noexcept = default;
    virtual ~RefCounted() = default;

private:
    mutable std::atomic<uint32_t> _refCount{1};
};

/// Owning pointer to a RefCounted object; null when empty.
template <typename T> class Ref {
public:
    constexpr Ref() noexcept = default;
    constexpr Ref(std::nullptr_t) noexcept { }

    /// Retains `object`.
    explicit Ref(T* object) noexcept : _object(object)
    {
        if (_object)
            _object->retain();
    }

    Ref(const Ref& other) noexcept : Ref(other._object) { }
    Ref(Ref&& other) noexcept : _object(std::exchange(other._object, nullptr)) { }

    template <typename U>
    requires std::is_convertible_v<U*, T*> Ref(const Ref<U>& other)
    noexcept : Ref(static_cast<T*>(other.get())) { }

    template <typename U>
    requires std::is_convertible_v<U*, T*> Ref(Ref<U>&& other)
    noexcept : _object(other.leakRef()) { }

    ~Ref()
    {
        if (_object)
            _object->release();
    }

    Ref& operator=(Ref other) noexcept
    {
        std::swap(_object, other._object);
        return *this;
    }

    /// Takes over one reference that the caller owns.
    [[nodiscard]] static Ref adopt(T* object) noexcept
    {
        Ref result;
        result._object = object;
        return result;
    }

    /// Gives up the reference without releasing it: the caller now owns it.
    [[nodiscard]] T* leakRef() noexcept { return std::exchange(_object, nullptr); }

    [[nodiscard]] T* get() const noexcept { return _object; }
    T* operator->() const noexcept { return _object; }
    T& operator*() const noexcept { return *_object; }
    explicit operator bool() const noexcept { return _object != nullptr; }

    friend bool operator==(const Ref& a, const Ref& b) noexcept { return a._object == b._object; }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a._object == nullptr; }

private:
    T* _object = nullptr;
};

template <typename T, typename... Args> [[nodiscard]] Ref<T> makeRef(Args&&... args)
{
    return Ref<T>::adopt(new T(std::forward<Args>(args)...));
}

/// Put into a class whose constructor is private so that only makeRef() can build it.
#define VNT_MAKE_REF_FRIEND                                                                                            \
    template <typename VntT, typename... VntArgs> friend ::vnt::Ref<VntT> vnt::makeRef(VntArgs&&... args)

} // namespace vnt
