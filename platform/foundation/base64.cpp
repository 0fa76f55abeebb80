#include "platform/foundation/base64.h"

#include <cstdint>

namespace vnt {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int valueOf(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

} // namespace

std::string base64Encoded(std::span<const std::byte> bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t count = bytes.size() - i < 3 ? bytes.size() - i : 3;
        uint32_t group = 0;
        for (size_t j = 0; j < 3; ++j)
            group = group << 8 | (j < count ? std::to_integer<uint32_t>(bytes[i + j]) : 0);
        for (size_t j = 0; j < 4; ++j)
            text.push_back(j <= count ? kAlphabet[group >> (18 - 6 * j) & 63] : '=');
    }
    return text;
}

std::optional<std::vector<std::byte>> base64Decoded(std::string_view text)
{
    std::vector<std::byte> bytes;
    bytes.reserve(text.size() / 4 * 3);
    uint32_t group = 0;
    size_t characters = 0;
    size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r')
            continue;
        const int value = valueOf(c);
        if (c == '=' ? characters % 4 < 2 || ++padding > 2 : value < 0 || padding > 0)
            return {};
        group = group << 6 | static_cast<uint32_t>(c == '=' ? 0 : value);
        if (++characters % 4 != 0)
            continue;
        for (size_t j = 0; j < 3 - padding; ++j)
            bytes.push_back(static_cast<std::byte>(group >> (16 - 8 * j) & 0xff));
        group = 0;
        if (padding > 0 && characters % 4 != 0)
            return {};
    }
    if (characters % 4 != 0)
        return {};
    return bytes;
}

} // namespace vnt
