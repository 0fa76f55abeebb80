#include "platform/foundation/utf8.h"

#include <cstring>

namespace vnt {
namespace {

/// What one lead byte demands (Unicode 15, table 3-7).
struct Lead {
    unsigned length = 0; // 0: not a lead byte
    unsigned char secondLow = 0x80;
    unsigned char secondHigh = 0xbf;
};

Lead leadOf(unsigned char byte)
{
    if (byte < 0x80)
        return {1};
    if (byte < 0xc2 || byte > 0xf4)
        return {};
    if (byte < 0xe0)
        return {2};
    if (byte < 0xf0)
        return {3, static_cast<unsigned char>(byte == 0xe0 ? 0xa0 : 0x80),
                static_cast<unsigned char>(byte == 0xed ? 0x9f : 0xbf)};
    return {4, static_cast<unsigned char>(byte == 0xf0 ? 0x90 : 0x80),
            static_cast<unsigned char>(byte == 0xf4 ? 0x8f : 0xbf)};
}

struct Sequence {
    bool wellFormed = false;
    size_t length = 1; // of an ill-formed one: what one replacement character stands for
};

Sequence sequenceAt(std::string_view text, size_t offset)
{
    const auto at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const Lead lead = leadOf(at(offset));
    if (lead.length == 0)
        return {};
    for (size_t i = 1; i < lead.length; ++i) {
        const unsigned char low = i == 1 ? lead.secondLow : 0x80;
        const unsigned char high = i == 1 ? lead.secondHigh : 0xbf;
        if (offset + i >= text.size() || at(offset + i) < low || at(offset + i) > high)
            return {false, i};
    }
    return {true, lead.length};
}

/// Offset of the first ill-formed sequence, or the size.
size_t firstIllFormed(std::string_view text)
{
    size_t offset = 0;
    while (offset < text.size()) {
        uint64_t eight = 0;
        if (text.size() - offset >= 8) {
            std::memcpy(&eight, text.data() + offset, 8);
            if ((eight & 0x8080808080808080U) == 0) {
                offset += 8;
                continue;
            }
        }
        const Sequence sequence = sequenceAt(text, offset);
        if (!sequence.wellFormed)
            return offset;
        offset += sequence.length;
    }
    return offset;
}

} // namespace

bool isUtf8(std::string_view text) noexcept { return firstIllFormed(text) == text.size(); }

std::string repairedUtf8(std::string_view text)
{
    size_t good = firstIllFormed(text);
    std::string result(text.substr(0, good));
    while (good < text.size()) {
        appendUtf8(result, kReplacementCharacter);
        text.remove_prefix(good + sequenceAt(text, good).length);
        good = firstIllFormed(text);
        result.append(text.substr(0, good));
    }
    return result;
}

void appendUtf8(std::string& text, uint32_t codePoint)
{
    if (codePoint > 0x10ffff || (codePoint >= 0xd800 && codePoint <= 0xdfff))
        codePoint = kReplacementCharacter;
    const auto put = [&](uint32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (codePoint < 0x80) {
        put(codePoint);
        return;
    }
    if (codePoint < 0x800) {
        put(0xc0 | codePoint >> 6);
    } else {
        if (codePoint < 0x10000) {
            put(0xe0 | codePoint >> 12);
        } else {
            put(0xf0 | codePoint >> 18);
            put(0x80 | (codePoint >> 12 & 0x3f));
        }
        put(0x80 | (codePoint >> 6 & 0x3f));
    }
    put(0x80 | (codePoint & 0x3f));
}

uint32_t nextCodePoint(std::string_view text, size_t& offset) noexcept
{
    const auto lead = static_cast<unsigned char>(text[offset]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    uint32_t value = length == 1 ? lead : lead & (0x7fU >> length);
    for (size_t i = 1; i < length && offset + i < text.size(); ++i)
        value = value << 6 | (static_cast<unsigned char>(text[offset + i]) & 0x3f);
    offset += length;
    return value;
}

} // namespace vnt
