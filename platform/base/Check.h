#pragma once

namespace vnt {

/// Writes "file:line: message" to standard error and aborts.
[[noreturn]] void checkFailed(const char* file, int line, const char* message) noexcept;

} // namespace vnt

/// A condition that only our own mistake can break; checked in every build. Never for outside input.
#define VNT_CHECK(condition)                                                                                           \
    do {                                                                                                               \
        if (!(condition)) [[unlikely]]                                                                                 \
            ::vnt::checkFailed(__FILE__, __LINE__, #condition);                                                        \
    } while (false)

#define VNT_UNREACHABLE() ::vnt::checkFailed(__FILE__, __LINE__, "unreachable")
