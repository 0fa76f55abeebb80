#include "platform/foundation/bridge.h"

using namespace vnt;

const CFArrayCallBacks kCFTypeArrayCallBacks = {0};
const CFDictionaryKeyCallBacks kCFTypeDictionaryKeyCallBacks = {0};
const CFDictionaryValueCallBacks kCFTypeDictionaryValueCallBacks = {0};

namespace {

Ref<Object> retained(const void* reference) { return Ref<Object>(static_cast<Object*>(const_cast<void*>(reference))); }

/// The mutable forms share the type ids of the others: only the class itself tells them apart.
template <typename T> T* mutableFromC(const void* reference)
{
    return dynamic_cast<T*>(static_cast<Object*>(const_cast<void*>(reference)));
}

} // namespace

CFArrayRef CFArrayCreate(CFAllocatorRef, const void** values, CFIndex count, const CFArrayCallBacks*) noexcept
{
    return guardedForC([&]() -> CFArrayRef {
        if (count < 0 || (!values && count > 0))
            return nullptr;
        std::vector<Ref<Object>> items;
        for (CFIndex i = 0; i < count; ++i) {
            if (!values[i])
                return nullptr;
            items.push_back(retained(values[i]));
        }
        return giveToC<CFArrayRef>(Array::create(std::move(items)));
    });
}

CFMutableArrayRef CFArrayCreateMutable(CFAllocatorRef, CFIndex, const CFArrayCallBacks*) noexcept
{
    return guardedForC([] { return giveToC<CFMutableArrayRef>(MutableArray::create()); });
}

void CFArrayAppendValue(CFMutableArrayRef array, const void* value) noexcept
{
    guardedForC([&] {
        auto* object = mutableFromC<MutableArray>(array);
        if (object && value)
            object->append(retained(value));
    });
}

CFIndex CFArrayGetCount(CFArrayRef array) noexcept
{
    const auto* object = fromC<Array>(array);
    return object ? static_cast<CFIndex>(object->count()) : 0;
}

const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index) noexcept
{
    const auto* object = fromC<Array>(array);
    if (!object || index < 0 || static_cast<size_t>(index) >= object->count())
        return nullptr;
    return toC<CFTypeRef>(object->items()[static_cast<size_t>(index)].get());
}

CFDictionaryRef CFDictionaryCreate(CFAllocatorRef, const void** keys, const void** values, CFIndex count,
                                   const CFDictionaryKeyCallBacks*, const CFDictionaryValueCallBacks*) noexcept
{
    return guardedForC([&]() -> CFDictionaryRef {
        if (count < 0 || ((!keys || !values) && count > 0))
            return nullptr;
        std::vector<Dictionary::Entry> entries;
        for (CFIndex i = 0; i < count; ++i) {
            if (!keys[i] || !values[i])
                return nullptr;
            entries.emplace_back(retained(keys[i]), retained(values[i]));
        }
        return giveToC<CFDictionaryRef>(Dictionary::create(entries));
    });
}

CFMutableDictionaryRef CFDictionaryCreateMutable(CFAllocatorRef, CFIndex, const CFDictionaryKeyCallBacks*,
                                                 const CFDictionaryValueCallBacks*) noexcept
{
    return guardedForC([] { return giveToC<CFMutableDictionaryRef>(MutableDictionary::create()); });
}

void CFDictionarySetValue(CFMutableDictionaryRef dictionary, const void* key, const void* value) noexcept
{
    guardedForC([&] {
        auto* object = mutableFromC<MutableDictionary>(dictionary);
        if (object && key && value)
            object->set(retained(key), retained(value));
    });
}

void CFDictionaryRemoveValue(CFMutableDictionaryRef dictionary, const void* key) noexcept
{
    guardedForC([&] {
        auto* object = mutableFromC<MutableDictionary>(dictionary);
        if (object && key)
            object->remove(*retained(key));
    });
}

CFIndex CFDictionaryGetCount(CFDictionaryRef dictionary) noexcept
{
    const auto* object = fromC<Dictionary>(dictionary);
    return object ? static_cast<CFIndex>(object->count()) : 0;
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key) noexcept
{
    return guardedForC([&]() -> const void* {
        const auto* object = fromC<Dictionary>(dictionary);
        return object && key ? toC<CFTypeRef>(object->get(*retained(key)).get()) : nullptr;
    });
}

void CFDictionaryGetKeysAndValues(CFDictionaryRef dictionary, const void** keys, const void** values) noexcept
{
    const auto* object = fromC<Dictionary>(dictionary);
    for (size_t i = 0; object && i < object->count(); ++i) {
        if (keys)
            keys[i] = toC<CFTypeRef>(object->entries()[i].first.get());
        if (values)
            values[i] = toC<CFTypeRef>(object->entries()[i].second.get());
    }
}
