#include "rumbel/report/printable.h"

#include <algorithm>
#include <cstdio>

namespace vnt {

namespace {

/// Wider names lose their parameters.
constexpr size_t kWideName = 60;

/// Length of the UTF-8 sequence at the start of `text` with its code point; 0 when there is none.
size_t decodeUtf8(std::string_view text, uint32_t& codePoint)
{
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t first = byte(0);
    const size_t length = first < 0x80 ? 1 : first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : first >= 0xc2 ? 2 : 0;
    if (length == 0 || first > 0xf4 || length > text.size())
        return 0;
    codePoint = length == 1 ? first : first & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
        codePoint = codePoint << 6 | (byte(i) & 0x3f);
    }
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool isSurrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    return codePoint >= kLeast[length] && codePoint <= 0x10ffff && !isSurrogate ? length : 0;
}

bool isHarmless(uint32_t codePoint)
{
    if (codePoint < 0x20 || (codePoint >= 0x7f && codePoint < 0xa0))
        return false;
    const bool turnsDirection = (codePoint >= 0x202a && codePoint <= 0x202e)
        || (codePoint >= 0x2066 && codePoint <= 0x2069) || codePoint == 0x200e || codePoint == 0x200f
        || codePoint == 0x2028 || codePoint == 0x2029;
    return !turnsDirection;
}

std::string format(const char* pattern, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

} // namespace

std::string printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        uint32_t codePoint = 0;
        const size_t length = decodeUtf8(text, codePoint);
        const size_t taken = std::max<size_t>(length, 1);
        if (length != 0 && isHarmless(codePoint)) {
            result.append(text.substr(0, length));
        } else {
            for (size_t i = 0; i < taken; ++i) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned>(static_cast<uint8_t>(text[i])));
                result += escape;
            }
        }
        text.remove_prefix(taken);
    }
    return result;
}

size_t displayWidth(std::string_view text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char byte) { return (static_cast<uint8_t>(byte) & 0xc0) != 0x80; }));
}

std::string shortFunctionName(std::string_view name)
{
    std::string text = printable(name);
    const size_t close = text.rfind(')');
    if (displayWidth(text) <= kWideName || close == std::string::npos)
        return text;
    size_t depth = 1;
    size_t open = close;
    while (open > 0 && depth > 0) {
        --open;
        depth += text[open] == ')' ? 1 : 0;
        depth -= text[open] == '(' ? 1 : 0;
    }
    if (depth == 0 && close > open + 4)
        text.replace(open + 1, close - open - 1, "...");
    return text;
}

std::string grouped(uint64_t value)
{
    const std::string digits = std::to_string(value);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

std::string percent(uint64_t part, uint64_t whole)
{
    return format("%.2f", whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole));
}

std::string duration(uint64_t ns)
{
    const auto value = static_cast<double>(ns);
    if (ns < 1000)
        return std::to_string(ns) + " ns";
    if (ns < 1'000'000)
        return format("%.1f us", value / 1e3);
    if (ns < 1'000'000'000)
        return format("%.2f ms", value / 1e6);
    return format("%.3f s", value / 1e9);
}

std::string bytes(uint64_t count)
{
    static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(count);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(kUnits); ++unit)
        value /= 1024;
    char text[32];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : value < 10 ? "%.2f %s" : "%.1f %s", value, kUnits[unit]);
    return text;
}

} // namespace vnt
