#include <cstring>
#include <optional>

#include "platform/foundation/bridge.h"

using namespace vnt;

namespace {

template <typename T> T valueAt(const void* memory)
{
    T value;
    std::memcpy(&value, memory, sizeof value); // the caller's memory need not be aligned
    return value;
}

/// Bytes of an integer type; 0 for the others.
size_t integerSize(CFNumberType type)
{
    switch (type) {
    case kCFNumberSInt8Type:
    case kCFNumberCharType:
        return 1;
    case kCFNumberSInt16Type:
    case kCFNumberShortType:
        return sizeof(short);
    case kCFNumberSInt32Type:
    case kCFNumberIntType:
        return sizeof(int);
    case kCFNumberLongType:
    case kCFNumberCFIndexType:
        return sizeof(long);
    case kCFNumberSInt64Type:
    case kCFNumberLongLongType:
        return sizeof(int64_t);
    default:
        return 0;
    }
}

std::optional<int64_t> integerAt(CFNumberType type, const void* memory)
{
    switch (integerSize(type)) {
    case 1:
        return valueAt<int8_t>(memory);
    case 2:
        return valueAt<int16_t>(memory);
    case 4:
        return valueAt<int32_t>(memory);
    case 8:
        return valueAt<int64_t>(memory);
    default:
        return {};
    }
}

template <typename T> bool putInteger(const Number& number, void* memory)
{
    const auto value = static_cast<T>(number.int64Value());
    std::memcpy(memory, &value, sizeof value);
    return Number::withInt64(value)->isEqual(number) || (number.isBool() && value == number.intValue());
}

template <typename T> bool putReal(const Number& number, void* memory)
{
    const auto value = static_cast<T>(number.doubleValue());
    std::memcpy(memory, &value, sizeof value);
    return Number::withDouble(static_cast<double>(value))->isEqual(number) || number.isBool();
}

bool put(const Number& number, CFNumberType type, void* memory)
{
    switch (integerSize(type)) {
    case 1:
        return putInteger<int8_t>(number, memory);
    case 2:
        return putInteger<int16_t>(number, memory);
    case 4:
        return putInteger<int32_t>(number, memory);
    case 8:
        return putInteger<int64_t>(number, memory);
    default:
        break;
    }
    if (type == kCFNumberFloat32Type || type == kCFNumberFloatType)
        return putReal<float>(number, memory);
    return (type == kCFNumberFloat64Type || type == kCFNumberDoubleType) && putReal<double>(number, memory);
}

} // namespace

CFNumberRef CFNumberCreate(CFAllocatorRef, CFNumberType type, const void* value) noexcept
{
    return guardedForC([&]() -> CFNumberRef {
        if (!value)
            return nullptr;
        if (const auto integer = integerAt(type, value)) {
            if (integerSize(type) <= sizeof(int32_t))
                return giveToC<CFNumberRef>(Number::withInt(static_cast<int32_t>(*integer)));
            return giveToC<CFNumberRef>(Number::withInt64(*integer));
        }
        if (type == kCFNumberFloat32Type || type == kCFNumberFloatType)
            return giveToC<CFNumberRef>(Number::withDouble(static_cast<double>(valueAt<float>(value))));
        if (type == kCFNumberFloat64Type || type == kCFNumberDoubleType)
            return giveToC<CFNumberRef>(Number::withDouble(valueAt<double>(value)));
        return nullptr;
    });
}

bool CFNumberGetValue(CFNumberRef number, CFNumberType type, void* value) noexcept
{
    return guardedForC([&] {
        const auto* object = fromC<Number>(number);
        return object && value && put(*object, type, value);
    });
}

CFNumberType CFNumberGetType(CFNumberRef number) noexcept
{
    const auto* object = fromC<Number>(number);
    if (!object)
        return static_cast<CFNumberType>(0);
    if (object->kind() == Number::Kind::kDouble)
        return kCFNumberFloat64Type;
    const bool isNarrow = object->isBool() || object->kind() == Number::Kind::kInt32;
    return isNarrow ? kCFNumberSInt32Type : kCFNumberSInt64Type;
}

// The two objects are never destroyed: the references stay valid without a count.
CFBooleanRef VntBoolean(bool value) noexcept
{
    return guardedForC([&]() -> CFBooleanRef { return toC<CFBooleanRef>(Number::withBool(value).get()); });
}

bool CFBooleanGetValue(CFBooleanRef boolean) noexcept
{
    const auto* number = fromC<Number>(boolean);
    return number && number->boolValue();
}

CFDateRef CFDateCreate(CFAllocatorRef, CFAbsoluteTime at) noexcept
{
    return guardedForC([&] { return giveToC<CFDateRef>(Date::withSecondsSince2001(at)); });
}

CFAbsoluteTime CFDateGetAbsoluteTime(CFDateRef date) noexcept
{
    const auto* object = fromC<Date>(date);
    return object ? object->secondsSince2001() : 0;
}
