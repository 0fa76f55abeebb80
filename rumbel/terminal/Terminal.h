#pragma once

#include <string>
#include <string_view>

namespace vnt::terminal {

/// A line may be rewritten on this descriptor: it is a terminal, and $TERM is neither unset, empty nor "dumb".
[[nodiscard]] bool isLively(int fd);

/// As isLively(), and $NO_COLOR is unset or empty.
[[nodiscard]] bool wantsColour(int fd);

enum class Colour { kGreen, kRed };
/// `text`, between the sequences for `colour` when `wanted`.
[[nodiscard]] std::string painted(std::string_view text, Colour colour, bool wanted);

} // namespace vnt::terminal
