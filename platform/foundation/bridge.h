#pragma once

#include <Vantora/Platform.h>

#include "platform/foundation/Error.h"

/// Exported references are pointers to Object; these are the only casts between the two.
namespace vnt {

/// The object behind an exported reference, or null when the reference is null or of another type.
template <typename T> [[nodiscard]] T* fromC(const void* reference)
{
    return as<T>(static_cast<Object*>(const_cast<void*>(reference)));
}

/// The exported form; ownership does not change.
template <typename CRef, typename T> [[nodiscard]] CRef toC(T* object)
{
    return reinterpret_cast<CRef>(const_cast<Object*>(static_cast<const Object*>(object)));
}

/// The exported form of a new reference: the C caller owns it.
template <typename CRef, typename T> [[nodiscard]] CRef giveToC(Ref<T> object) { return toC<CRef>(object.leakRef()); }

/// Runs the body of an exported function. What is still in flight (memory used up) becomes null, 0 or false.
template <typename Body> auto guardedForC(Body body) noexcept -> decltype(body())
{
    try {
        return body();
    } catch (...) {
        return decltype(body())();
    }
}

} // namespace vnt
