#pragma once

#include <string>

#include "platform/foundation/Error.h"
#include "platform/foundation/Format.h"
#include "platform/foundation/bridge.h"

namespace vnt {

inline constexpr std::string_view kErrorDomain = "quillon.vnt";
inline constexpr int64_t kErrorCode = 1561; ///< the same for every error of the library

/// The library's one kind of error object. The only place that makes one.
[[nodiscard]] Ref<Error> makeError(std::string_view sentence);

/// Stores a new error through `slot` when there is one. An earlier error there is replaced and not released: a caller
/// that passes its own variable may hold other references to it.
void storeError(CFErrorRef* slot, std::string_view sentence);

int printStatus(const std::string& text);
int printError(const std::string& text);

/// A fatal assertion of the library: writes `text` (of the catalogue) and the function's name to standard error,
/// aborts.
[[noreturn]] void assertionFailed(const char* text, const char* function) noexcept;

} // namespace vnt
