#include <cstdlib>

#include "platform/foundation/PropertyList.h"
#include "platform/foundation/bridge.h"

using namespace vnt;

namespace {

/// Domain of errors that come from property lists handed in by a C caller; the code is Code's number.
constexpr std::string_view kPropertyListDomain = "vantora.propertylist";

std::span<const std::byte> spanOf(const uint8_t* bytes, CFIndex length)
{
    return std::as_bytes(std::span(bytes, static_cast<size_t>(length)));
}

bool isSound(const uint8_t* bytes, CFIndex length) { return length == 0 || (bytes && length > 0); }

void storeError(const Status& status, CFErrorRef* error)
{
    if (!error)
        return;
    const Ref<Dictionary> userInfo =
        Dictionary::create({{String::create(kLocalizedDescriptionKey), String::create(status.message())}});
    *error = giveToC<CFErrorRef>(
        Error::create(String::create(kPropertyListDomain), static_cast<int64_t>(status.code()), userInfo));
}

} // namespace

CFDataRef CFDataCreate(CFAllocatorRef, const uint8_t* bytes, CFIndex length) noexcept
{
    return guardedForC([&]() -> CFDataRef {
        return isSound(bytes, length) ? giveToC<CFDataRef>(Data::create(spanOf(bytes, length))) : nullptr;
    });
}

CFDataRef CFDataCreateWithBytesNoCopy(CFAllocatorRef, const uint8_t* bytes, CFIndex length,
                                      CFAllocatorRef bytesDeallocator) noexcept
{
    return guardedForC([&]() -> CFDataRef {
        if (!isSound(bytes, length))
            return nullptr;
        if (bytesDeallocator == kCFAllocatorNull)
            return giveToC<CFDataRef>(Data::withoutCopy(spanOf(bytes, length)));
        Ref<Data> copy = Data::create(spanOf(bytes, length));
        std::free(const_cast<uint8_t*>(bytes)); // handed over with the call
        return giveToC<CFDataRef>(std::move(copy));
    });
}

const uint8_t* CFDataGetBytePtr(CFDataRef data) noexcept
{
    const auto* object = fromC<Data>(data);
    return object ? reinterpret_cast<const uint8_t*>(object->bytes().data()) : nullptr;
}

CFIndex CFDataGetLength(CFDataRef data) noexcept
{
    const auto* object = fromC<Data>(data);
    return object ? static_cast<CFIndex>(object->bytes().size()) : 0;
}

CFErrorRef CFErrorCreate(CFAllocatorRef, CFStringRef domain, CFIndex code, CFDictionaryRef userInfo) noexcept
{
    return guardedForC([&] {
        return giveToC<CFErrorRef>(
            Error::create(Ref<String>(fromC<String>(domain)), code, Ref<Dictionary>(fromC<Dictionary>(userInfo))));
    });
}

CFStringRef CFErrorGetDomain(CFErrorRef error) noexcept
{
    const auto* object = fromC<Error>(error);
    return object ? toC<CFStringRef>(object->domain().get()) : nullptr;
}

CFIndex CFErrorGetCode(CFErrorRef error) noexcept
{
    const auto* object = fromC<Error>(error);
    return object ? static_cast<CFIndex>(object->code()) : 0;
}

CFDictionaryRef CFErrorCopyUserInfo(CFErrorRef error) noexcept
{
    const auto* object = fromC<Error>(error);
    return object ? giveToC<CFDictionaryRef>(object->userInfo()) : nullptr;
}

CFStringRef CFErrorCopyDescription(CFErrorRef error) noexcept
{
    return guardedForC([&]() -> CFStringRef {
        const auto* object = fromC<Error>(error);
        return object ? giveToC<CFStringRef>(object->localizedDescription()) : nullptr;
    });
}

CFDataRef CFPropertyListCreateData(CFAllocatorRef, CFPropertyListRef list, CFPropertyListFormat format, unsigned long,
                                   CFErrorRef* error) noexcept
{
    return guardedForC([&]() -> CFDataRef {
        if (!list)
            return nullptr;
        const bool isXml = format == kCFPropertyListXMLFormat_v1_0;
        auto bytes = writePropertyList(*static_cast<const Object*>(list),
                                       isXml ? PropertyListFormat::kXml : PropertyListFormat::kBinary);
        if (bytes.ok())
            return giveToC<CFDataRef>(Data::adopting(bytes.take()));
        storeError(bytes.status(), error);
        return nullptr;
    });
}

CFPropertyListRef CFPropertyListCreateWithData(CFAllocatorRef, CFDataRef data, unsigned long,
                                               CFPropertyListFormat* format, CFErrorRef* error) noexcept
{
    return guardedForC([&]() -> CFPropertyListRef {
        const auto* object = fromC<Data>(data);
        if (!object)
            return nullptr;
        auto list = readPropertyList(object->bytes());
        if (!list.ok()) {
            storeError(list.status(), error);
            return nullptr;
        }
        if (format) {
            const bool isBinary = object->bytes()[0] == std::byte{'b'}; // XML begins with "<", a mark or white space
            *format = isBinary ? kCFPropertyListBinaryFormat_v1_0 : kCFPropertyListXMLFormat_v1_0;
        }
        return giveToC<CFPropertyListRef>(list.take());
    });
}
