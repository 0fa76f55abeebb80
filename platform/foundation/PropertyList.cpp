#include "platform/foundation/PropertyList.h"

#include "platform/foundation/plist_codecs.h"

namespace vnt {

Result<Ref<Object>> readPropertyList(std::span<const std::byte> bytes, const PropertyListLimits& limits)
{
    if (bytes.size() > limits.maxBytes)
        return Status(Code::kTooLarge,
                      "property list: " + std::to_string(bytes.size()) + " bytes, limit "
                          + std::to_string(limits.maxBytes));
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (text.starts_with(plist::kBinaryMagic))
        return plist::readBinary(bytes, limits);
    return plist::readXml(text, limits);
}

Result<std::vector<std::byte>> writePropertyList(const Object& root, PropertyListFormat format)
{
    return format == PropertyListFormat::kBinary ? plist::writeBinary(root) : plist::writeXml(root);
}

Ref<Uid> Uid::create(uint64_t value) { return makeRef<Uid>(value); }

bool Uid::isEqual(const Object& other) const
{
    const auto* uid = as<Uid>(&other);
    return uid && uid->_value == _value;
}

} // namespace vnt
