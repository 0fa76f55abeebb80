#pragma once

#include <Vantora/Platform.h>

#include <string>
#include <type_traits>
#include <utility>

/// The library's C objects with C++ ownership, as any C++ client would wrap them.
namespace vnt::rumbel::cf {

template <typename T> class Owned {
public:
    Owned() = default;
    explicit Owned(T reference) : _reference(reference) { }
    Owned(Owned&& other) noexcept : _reference(std::exchange(other._reference, nullptr)) { }
    Owned& operator=(Owned&& other) noexcept
    {
        std::swap(_reference, other._reference);
        return *this;
    }
    ~Owned()
    {
        if (_reference)
            CFRelease(_reference);
    }
    [[nodiscard]] T get() const { return _reference; }

private:
    T _reference = nullptr;
};

inline Owned<CFStringRef> string(const std::string& text)
{
    return Owned<CFStringRef>(CFStringCreateWithCString(kCFAllocatorDefault, text.c_str(), kCFStringEncodingUTF8));
}

inline Owned<CFNumberRef> number(int64_t value)
{
    return Owned<CFNumberRef>(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &value));
}

inline Owned<CFMutableDictionaryRef> newDictionary()
{
    return Owned<CFMutableDictionaryRef>(CFDictionaryCreateMutable(
        kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
}

inline Owned<CFMutableArrayRef> newArray()
{
    return Owned<CFMutableArrayRef>(CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
}

template <typename T>
void set(const Owned<CFMutableDictionaryRef>& dictionary, const std::string& key, const Owned<T>& value)
{
    CFDictionarySetValue(dictionary.get(), string(key).get(), value.get());
}

template <typename T> void append(const Owned<CFMutableArrayRef>& array, const Owned<T>& value)
{
    CFArrayAppendValue(array.get(), value.get());
}

inline std::string text(CFStringRef reference)
{
    const char* bytes = reference ? CFStringGetCStringPtr(reference, kCFStringEncodingUTF8) : nullptr;
    return bytes ? bytes : "";
}

inline Owned<CFStringRef> description(CFErrorRef error) { return Owned<CFStringRef>(CFErrorCopyDescription(error)); }

} // namespace vnt::rumbel::cf
