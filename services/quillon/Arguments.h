#pragma once

#include <sys/types.h>

#include <string>

#include "platform/foundation/Collections.h"
#include "platform/foundation/Error.h"

namespace vnt {

/// Arguments of a client's request, checked. Integers are taken in any width. Both throw the Exception that answers the
/// client.

inline pid_t pidArgument(const Array& arguments, size_t index)
{
    const auto* number = index < arguments.count() ? as<Number>(arguments.at(index).get()) : nullptr;
    if (!number || number->isBool() || number->int64Value() < INT32_MIN || number->int64Value() > INT32_MAX)
        throw Exception("NSInvalidArgumentException",
                        "argument " + std::to_string(index + 1) + " is no process identifier");
    return number->intValue();
}

[[noreturn]] inline void throwUnknownSelector(const std::string& selector)
{
    throw Exception("NSInvalidArgumentException", selector + ": unrecognized selector");
}

} // namespace vnt
