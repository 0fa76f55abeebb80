#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vnt {

/// Text from a recording made safe for a terminal: control characters, characters that turn the direction of writing
/// and bytes that are not UTF-8 become \xNN.
[[nodiscard]] std::string printable(std::string_view text);

/// Columns that `text`, already printable, takes: one for each character.
[[nodiscard]] size_t displayWidth(std::string_view text);

/// A function's name for a line of a terminal: printable, and when it is wide, with "..." for its parameters.
[[nodiscard]] std::string shortFunctionName(std::string_view name);

/// "1,234,567".
[[nodiscard]] std::string grouped(uint64_t value);

/// `part` of `whole` as "12.34"; "0.00" of nothing.
[[nodiscard]] std::string percent(uint64_t part, uint64_t whole);

/// A number of bytes in the unit that suits it: "850 B", "12.3 KiB", "4.56 GiB".
[[nodiscard]] std::string bytes(uint64_t count);

/// Nanoseconds in the unit that suits them: "850 ns", "12.3 us", "4.56 ms", "7.890 s".
[[nodiscard]] std::string duration(uint64_t ns);

} // namespace vnt
