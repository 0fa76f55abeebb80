#pragma once

#include <string>
#include <string_view>

namespace vnt {

/// `text` with every byte that is not part of a UTF-8 character replaced by U+FFFD: viewers refuse files with others.
/// Null bytes are replaced, too.
[[nodiscard]] std::string validUtf8(std::string_view text);

} // namespace vnt
