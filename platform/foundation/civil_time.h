#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vnt {

/// "2001-01-01T00:00:00Z" from seconds since 1 January 2001 UTC, fraction dropped downwards. Instants outside the
/// years 1 to 9999, and what is no number, are clamped to those years.
[[nodiscard]] std::string formatIso8601(double secondsSince2001);
/// The reverse; nothing when `text` has another form or names no calendar instant.
[[nodiscard]] std::optional<double> parseIso8601(std::string_view text);

} // namespace vnt
