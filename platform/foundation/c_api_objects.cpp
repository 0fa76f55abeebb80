#include "platform/foundation/bridge.h"

using namespace vnt;

namespace {

Object* objectOf(CFTypeRef reference) { return static_cast<Object*>(const_cast<void*>(reference)); }

/// Never 0, which stands for null.
constexpr CFTypeID idOf(TypeId type) { return static_cast<CFTypeID>(type) + 1; }
constexpr CFTypeID kBooleanTypeId = 0x100;

} // namespace

CFTypeRef CFRetain(CFTypeRef object) noexcept
{
    if (object)
        objectOf(object)->retain();
    return object;
}

void CFRelease(CFTypeRef object) noexcept
{
    if (object)
        objectOf(object)->release();
}

bool CFEqual(CFTypeRef a, CFTypeRef b) noexcept
{
    return guardedForC([&] { return equal(objectOf(a), objectOf(b)); });
}

CFHashCode CFHash(CFTypeRef object) noexcept
{
    return guardedForC([&] { return object ? static_cast<CFHashCode>(objectOf(object)->hash()) : 0; });
}

CFStringRef CFCopyDescription(CFTypeRef object) noexcept
{
    return guardedForC([&]() -> CFStringRef {
        return object ? giveToC<CFStringRef>(String::create(objectOf(object)->description())) : nullptr;
    });
}

CFTypeID CFGetTypeID(CFTypeRef object) noexcept
{
    if (!object)
        return 0;
    const auto* number = fromC<Number>(object);
    return number && number->isBool() ? kBooleanTypeId : idOf(objectOf(object)->typeId());
}

CFTypeID CFNullGetTypeID() noexcept { return idOf(TypeId::kNull); }
CFTypeID CFStringGetTypeID() noexcept { return idOf(TypeId::kString); }
CFTypeID CFNumberGetTypeID() noexcept { return idOf(TypeId::kNumber); }
CFTypeID CFBooleanGetTypeID() noexcept { return kBooleanTypeId; }
CFTypeID CFDateGetTypeID() noexcept { return idOf(TypeId::kDate); }
CFTypeID CFDataGetTypeID() noexcept { return idOf(TypeId::kData); }
CFTypeID CFArrayGetTypeID() noexcept { return idOf(TypeId::kArray); }
CFTypeID CFDictionaryGetTypeID() noexcept { return idOf(TypeId::kDictionary); }
CFTypeID CFSetGetTypeID() noexcept { return idOf(TypeId::kSet); }
CFTypeID CFURLGetTypeID() noexcept { return idOf(TypeId::kUrl); }
CFTypeID CFErrorGetTypeID() noexcept { return idOf(TypeId::kError); }

// The object is never destroyed: the reference stays valid without a count.
CFTypeRef VntNull() noexcept
{
    return guardedForC([]() -> CFTypeRef { return toC<CFTypeRef>(Null::create().get()); });
}
