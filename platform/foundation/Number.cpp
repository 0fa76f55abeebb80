#include <bit>
#include <charconv>
#include <cmath>
#include <limits>

#include "platform/foundation/Values.h"
#include "platform/foundation/hashing.h"

namespace vnt {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

/// Value of an integral kind or integral double, so that equal numbers of different kinds compare and hash alike.
struct Integer {
    bool exact; // false: a fraction, or beyond 64 bits
    bool negative;
    uint64_t bits;
    friend bool operator==(const Integer&, const Integer&) = default;
};

Integer integerOf(const Number& number)
{
    switch (number.kind()) {
    case Number::Kind::kDouble: {
        const double value = number.doubleValue();
        if (!(value >= -kTwoTo63 && value < kTwoTo64) || std::trunc(value) != value)
            return {false, false, std::bit_cast<uint64_t>(value)};
        return {true, value < 0,
                value < 0 ? static_cast<uint64_t>(static_cast<int64_t>(value)) : static_cast<uint64_t>(value)};
    }
    case Number::Kind::kUint64:
        return {true, false, number.uint64Value()};
    default:
        return {true, number.int64Value() < 0, number.uint64Value()};
    }
}

} // namespace

Ref<Number> Number::withBool(bool value)
{
    // Never destroyed: nothing may run at exit.
    static Number* const kTrue = new Number(Kind::kBool, 1);
    static Number* const kFalse = new Number(Kind::kBool, 0);
    return Ref<Number>(value ? kTrue : kFalse);
}

Ref<Number> Number::withInt(int32_t value)
{
    return makeRef<Number>(Kind::kInt32, static_cast<uint64_t>(int64_t{value}));
}

Ref<Number> Number::withInt64(int64_t value) { return makeRef<Number>(Kind::kInt64, static_cast<uint64_t>(value)); }
Ref<Number> Number::withUint64(uint64_t value) { return makeRef<Number>(Kind::kUint64, value); }
Ref<Number> Number::withDouble(double value) { return makeRef<Number>(Kind::kDouble, std::bit_cast<uint64_t>(value)); }

bool Number::boolValue() const { return _kind == Kind::kDouble ? doubleValue() != 0 : _bits != 0; }

int64_t Number::int64Value() const
{
    if (_kind != Kind::kDouble)
        return static_cast<int64_t>(_bits);
    const auto value = std::bit_cast<double>(_bits);
    if (std::isnan(value))
        return 0;
    if (value >= kTwoTo63)
        return std::numeric_limits<int64_t>::max();
    return value < -kTwoTo63 ? std::numeric_limits<int64_t>::min() : static_cast<int64_t>(value);
}

uint64_t Number::uint64Value() const
{
    if (_kind != Kind::kDouble)
        return _bits;
    const auto value = std::bit_cast<double>(_bits);
    if (!(value > 0))
        return 0;
    return value >= kTwoTo64 ? std::numeric_limits<uint64_t>::max() : static_cast<uint64_t>(value);
}

double Number::doubleValue() const
{
    switch (_kind) {
    case Kind::kDouble:
        return std::bit_cast<double>(_bits);
    case Kind::kUint64:
        return static_cast<double>(_bits);
    default:
        return static_cast<double>(static_cast<int64_t>(_bits));
    }
}

bool Number::isEqual(const Object& other) const
{
    const auto* number = as<Number>(&other);
    if (!number || number->isBool() != isBool())
        return false;
    if (_kind == number->_kind && _bits == number->_bits)
        return true; // also makes what is no number equal to itself
    return integerOf(*this).exact && integerOf(*this) == integerOf(*number);
}

size_t Number::hash() const { return hashValue(integerOf(*this).bits, isBool() ? 1 : 0); }

std::string Number::description() const
{
    char text[40];
    std::to_chars_result end{};
    switch (_kind) {
    case Kind::kDouble:
        end = std::to_chars(text, text + sizeof text, std::bit_cast<double>(_bits));
        break;
    case Kind::kUint64:
        end = std::to_chars(text, text + sizeof text, _bits);
        break;
    default:
        end = std::to_chars(text, text + sizeof text, static_cast<int64_t>(_bits));
    }
    return std::string(text, end.ptr);
}

} // namespace vnt
