#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vnt {

/// Base64 (RFC 4648, 4) with padding, without line breaks.
[[nodiscard]] std::string base64Encoded(std::span<const std::byte> bytes);
/// White space between the characters is skipped; nothing when other characters or a wrong length occur.
[[nodiscard]] std::optional<std::vector<std::byte>> base64Decoded(std::string_view text);

} // namespace vnt
