#pragma once

#include "platform/foundation/PropertyList.h"

/// The two forms behind readPropertyList() and writePropertyList(); included by nothing else.
namespace vnt::plist {

inline constexpr std::string_view kBinaryMagic = "bplist0";

/// Bytes that hashing one key looks at. One long key that thousands of dictionaries share would be hashed by each:
/// readers allow all keys together kKeyBytesPerInputByte times the input's size.
inline size_t keyBytes(const Object& key)
{
    if (const auto* string = as<String>(&key))
        return string->str().size();
    if (const auto* data = as<Data>(&key))
        return data->bytes().size();
    const auto* url = as<Url>(&key);
    return url ? url->str().size() : 8;
}
inline constexpr uint64_t kKeyBytesPerInputByte = 64;

Result<Ref<Object>> readBinary(std::span<const std::byte> bytes, const PropertyListLimits& limits);
Result<Ref<Object>> readXml(std::string_view text, const PropertyListLimits& limits);
Result<std::vector<std::byte>> writeBinary(const Object& root, size_t capacityBytes = 0);
Result<std::vector<std::byte>> writeXml(const Object& root);

inline Status invalidAt(size_t offset, const std::string& what)
{
    return Status(Code::kInvalid, "property list: offset " + std::to_string(offset) + ": " + what);
}

/// Marker bytes of the binary form: high half the type, low half a length or its logarithm.
enum class Marker : uint8_t {
    kNull = 0x00,
    kFalse = 0x08,
    kTrue = 0x09,
    kInteger = 0x10,
    kReal = 0x20,
    kDate = 0x33,
    kData = 0x40,
    kAscii = 0x50,
    kUtf16 = 0x60,
    kUid = 0x80,
    kArray = 0xa0,
    kDictionary = 0xd0,
};

/// Last 32 bytes of the binary form: six unused, then these. Numbers are big-endian throughout.
inline constexpr size_t kTrailerBytes = 32;
inline constexpr size_t kTrailerUnusedBytes = 6;

} // namespace vnt::plist
