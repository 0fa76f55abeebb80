#pragma once

#include <string>

#include "platform/base/Ref.h"

namespace vnt {

enum class TypeId : uint8_t {
    kNull,
    kString,
    kNumber,
    kDate,
    kData,
    kArray,
    kDictionary,
    kSet,
    kUrl,
    kError,
    kUid,
    kOther, ///< objects that are not values: sessions, queues, services
};

/// Root of every object that can cross the C interface. An exported reference (CFStringRef and the rest)
/// is a pointer to this very object. Value objects are immutable once shared; the mutable forms belong to
/// one thread at a time.
class Object : public RefCounted {
public:
    [[nodiscard]] TypeId typeId() const noexcept { return _typeId; }

    /// Equality by value for value types, identity otherwise.
    [[nodiscard]] virtual bool isEqual(const Object& other) const { return this == &other; }
    /// Equal objects have equal hashes.
    [[nodiscard]] virtual size_t hash() const { return std::hash<const void*>()(this); }
    /// What "%@" shows.
    [[nodiscard]] virtual std::string description() const;

protected:
    explicit Object(TypeId typeId = TypeId::kOther) noexcept : _typeId(typeId) { }

private:
    const TypeId _typeId;
};

/// The object as a `T` when it is one, else null. `T` has `static constexpr TypeId kTypeId`. Costs one compare.
template <typename T> [[nodiscard]] T* as(Object* object) noexcept
{
    return object && object->typeId() == std::remove_const_t<T>::kTypeId ? static_cast<T*>(object) : nullptr;
}
template <typename T> [[nodiscard]] const T* as(const Object* object) noexcept
{
    return object && object->typeId() == std::remove_const_t<T>::kTypeId ? static_cast<const T*>(object) : nullptr;
}
template <typename T, typename U> [[nodiscard]] Ref<T> as(const Ref<U>& object) noexcept
{
    return Ref<T>(as<T>(static_cast<Object*>(object.get())));
}

/// True when both are null or both are equal by value.
[[nodiscard]] bool equal(const Object* a, const Object* b);

} // namespace vnt
