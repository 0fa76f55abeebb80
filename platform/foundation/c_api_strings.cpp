#include <cstring>

#include "platform/foundation/bridge.h"
#include "platform/foundation/utf8.h"

using namespace vnt;

namespace {

bool isKnown(CFStringEncoding encoding)
{
    return encoding == kCFStringEncodingUTF8 || encoding == kCFStringEncodingASCII;
}

bool isHoldable(const String& string, CFStringEncoding encoding)
{
    if (encoding == kCFStringEncodingUTF8)
        return true;
    for (const char c : string.str()) {
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    }
    return encoding == kCFStringEncodingASCII;
}

} // namespace

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding encoding) noexcept
{
    return guardedForC([&]() -> CFStringRef {
        return text && isKnown(encoding) ? giveToC<CFStringRef>(String::create(text)) : nullptr;
    });
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const uint8_t* bytes, CFIndex length, CFStringEncoding encoding,
                                    bool) noexcept
{
    return guardedForC([&]() -> CFStringRef {
        if ((!bytes && length != 0) || length < 0 || !isKnown(encoding))
            return nullptr;
        const std::string_view text(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
        return giveToC<CFStringRef>(String::create(text));
    });
}

CFIndex CFStringGetLength(CFStringRef string) noexcept
{
    const auto* text = fromC<String>(string);
    if (!text)
        return 0;
    CFIndex units = 0;
    for (size_t offset = 0; offset < text->str().size();)
        units += nextCodePoint(text->str(), offset) > 0xffff ? 2 : 1;
    return units;
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding) noexcept
{
    constexpr CFIndex kBytesPerUnit = 3; // a surrogate pair needs four for two
    if (length < 0 || !isKnown(encoding))
        return 0;
    CFIndex size = 0;
    return __builtin_mul_overflow(length, kBytesPerUnit, &size) ? 0 : size;
}

bool CFStringGetCString(CFStringRef string, char* buffer, CFIndex bufferSize, CFStringEncoding encoding) noexcept
{
    if (!buffer || bufferSize <= 0)
        return false;
    buffer[0] = '\0';
    const auto* text = fromC<String>(string);
    if (!text || !isHoldable(*text, encoding) || text->str().size() >= static_cast<size_t>(bufferSize))
        return false;
    std::memcpy(buffer, text->utf8(), text->str().size() + 1);
    return true;
}

const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding) noexcept
{
    const auto* text = fromC<String>(string);
    return text && isHoldable(*text, encoding) ? text->utf8() : nullptr;
}

CFURLRef CFURLCreateWithString(CFAllocatorRef, CFStringRef text, CFURLRef base) noexcept
{
    return guardedForC([&]() -> CFURLRef {
        const auto* string = fromC<String>(text);
        return string && !base ? giveToC<CFURLRef>(Url::withString(string->str())) : nullptr;
    });
}

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const uint8_t* path, CFIndex length,
                                                 bool isDirectory) noexcept
{
    return guardedForC([&]() -> CFURLRef {
        if (!path || length <= 0)
            return nullptr;
        std::string text(reinterpret_cast<const char*>(path), static_cast<size_t>(length));
        if (isDirectory && !text.ends_with('/'))
            text += '/';
        return giveToC<CFURLRef>(Url::withFilePath(text));
    });
}

CFStringRef CFURLGetString(CFURLRef url) noexcept
{
    const auto* object = fromC<Url>(url);
    return object ? toC<CFStringRef>(object->string().get()) : nullptr;
}
