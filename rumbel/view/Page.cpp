#include "rumbel/view/Page.h"

#include <zlib.h>

#include <string_view>
#include <vector>

namespace vnt::view {

/// viewer/dist/page.html, built in; made by cmake from that file.
extern const unsigned char kPageTemplate[];
extern const size_t kPageTemplateBytes;

namespace {

/// Where the data goes in.
constexpr std::string_view kPlace = "@VNT_DATA@";
/// Fast: the browser unpacks either at the same speed, and 6 would save a tenth.
constexpr int kCompressionLevel = 4;

void appendBase64(std::string& text, std::span<const unsigned char> bytes)
{
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    text.reserve(text.size() + (bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t left = bytes.size() - i;
        const uint32_t three = uint32_t{bytes[i]} << 16 | (left > 1 ? uint32_t{bytes[i + 1]} << 8 : 0)
            | (left > 2 ? uint32_t{bytes[i + 2]} : 0);
        text += kDigits[three >> 18];
        text += kDigits[three >> 12 & 63];
        text += left > 1 ? kDigits[three >> 6 & 63] : '=';
        text += left > 2 ? kDigits[three & 63] : '=';
    }
}

} // namespace

Result<std::string> pageWith(std::span<const std::byte> data)
{
    const std::string_view page(reinterpret_cast<const char*>(kPageTemplate), kPageTemplateBytes);
    const size_t place = page.find(kPlace);
    if (place == std::string_view::npos)
        return Status(Code::kInvalid, "the page has no place for its data");
    uLongf packedBytes = ::compressBound(data.size());
    std::vector<unsigned char> packed(packedBytes);
    if (::compress2(packed.data(), &packedBytes, reinterpret_cast<const unsigned char*>(data.data()), data.size(),
                    kCompressionLevel)
        != Z_OK)
        return Status(Code::kInvalid, "the page's data cannot be packed");
    std::string text(page.substr(0, place));
    text.reserve(page.size() + packedBytes / 3 * 4 + 8);
    appendBase64(text, std::span(packed).first(packedBytes));
    text += page.substr(place + kPlace.size());
    return text;
}

} // namespace vnt::view
