#include "bundle/exports/utf8.h"

#include <algorithm>
#include <cstdint>

namespace vnt {

namespace {

constexpr std::string_view kReplacement = "\xef\xbf\xbd"; // U+FFFD

/// Bytes of the character that `text` begins with (RFC 3629); 0 when it begins with none.
size_t characterBytes(std::string_view text)
{
    const auto at = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const auto follows = [&](size_t i) { return i < text.size() && (at(i) & 0xc0) == 0x80; };
    const uint8_t first = at(0);
    if (first < 0x80)
        return first != 0 ? 1 : 0;
    if (first >= 0xc2 && first < 0xe0)
        return follows(1) ? 2 : 0;
    if (first >= 0xe0 && first < 0xf0) {
        if (!follows(1) || !follows(2) || (first == 0xe0 && at(1) < 0xa0) || (first == 0xed && at(1) >= 0xa0))
            return 0;
        return 3;
    }
    if (first >= 0xf0 && first < 0xf5) {
        if (!follows(1) || !follows(2) || !follows(3) || (first == 0xf0 && at(1) < 0x90)
            || (first == 0xf4 && at(1) >= 0x90))
            return 0;
        return 4;
    }
    return 0;
}

} // namespace

std::string validUtf8(std::string_view text)
{
    // Nearly every name is plain.
    if (std::all_of(text.begin(), text.end(), [](char c) { return c > 0; }))
        return std::string(text);
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) {
        const size_t bytes = characterBytes(text);
        if (bytes == 0)
            valid.append(kReplacement);
        else
            valid.append(text.substr(0, bytes));
        text.remove_prefix(bytes == 0 ? 1 : bytes);
    }
    return valid;
}

} // namespace vnt
