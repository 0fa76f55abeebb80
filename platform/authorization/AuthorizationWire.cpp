#include "platform/authorization/AuthorizationWire.h"

#include <cstring>

namespace vnt {

AuthorityPacket::~AuthorityPacket()
{
    const auto bytes = _writer.take();
    ::explicit_bzero(const_cast<std::byte*>(bytes.data()), bytes.size());
}

void AuthorityPacket::beginRequest(AuthorityRequest request)
{
    _writer.little(kAuthorityMagic);
    _writer.little(kAuthorityVersion);
    _writer.little(static_cast<uint16_t>(request));
}

void AuthorityPacket::beginAnswer(uint16_t request, OSStatus status)
{
    _writer.little(kAuthorityMagic);
    _writer.little(kAuthorityVersion);
    _writer.little(request);
    _writer.little(status);
}

bool AuthorityPacket::addItems(const AuthorizationItemSet* set)
{
    const uint32_t count = set ? set->count : 0;
    if (count > kMaxAuthorizationItems || (count != 0 && !set->items))
        return false;
    _writer.little(count);
    for (uint32_t i = 0; i < count; ++i) {
        const AuthorizationItem& item = set->items[i];
        if (!item.name || (item.valueLength != 0 && !item.value))
            return false;
        const std::string_view name = item.name;
        if (name.empty() || name.size() > kMaxAuthorizationNameBytes
            || item.valueLength > kMaxAuthorizationValueBytes
            // Growing past what is reserved would leave a copy behind.
            || _writer.size() + name.size() + item.valueLength + 32 > kMaxAuthorityPacketBytes)
            return false;
        _writer.text(name);
        _writer.little(item.flags);
        _writer.text({static_cast<const char*>(item.value), item.valueLength});
    }
    return true;
}

std::vector<AuthorizationItemView> readItems(ByteCursor& cursor)
{
    const auto count = cursor.little<uint32_t>();
    if (count > kMaxAuthorizationItems)
        cursor.fail();
    std::vector<AuthorizationItemView> items;
    for (uint32_t i = 0; i < count && !cursor.failed(); ++i) {
        AuthorizationItemView item;
        item.name = cursor.text(kMaxAuthorizationNameBytes);
        item.flags = cursor.little<uint32_t>();
        item.value = cursor.text(kMaxAuthorizationValueBytes);
        if (item.name.empty() || item.name.find('\0') != std::string_view::npos)
            cursor.fail();
        items.push_back(item);
    }
    return items;
}

} // namespace vnt
