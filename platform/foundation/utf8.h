#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vnt {

inline constexpr uint32_t kReplacementCharacter = 0xfffd;

/// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
[[nodiscard]] bool isUtf8(std::string_view text) noexcept;
/// `text` with U+FFFD in place of each ill-formed sequence.
[[nodiscard]] std::string repairedUtf8(std::string_view text);
/// Appends a code point; a surrogate or a value above U+10FFFF becomes U+FFFD.
void appendUtf8(std::string& text, uint32_t codePoint);
/// Decodes the code point at `offset` of well-formed UTF-8 and moves past it.
[[nodiscard]] uint32_t nextCodePoint(std::string_view text, size_t& offset) noexcept;

} // namespace vnt
