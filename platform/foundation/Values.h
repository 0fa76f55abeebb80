#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Object.h"

namespace vnt {

/// UTF-8 text. Bytes that are not UTF-8 become U+FFFD at creation.
class String final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kString;
    [[nodiscard]] static Ref<String> create(std::string_view text);

    [[nodiscard]] const std::string& str() const { return _text; }
    [[nodiscard]] const char* utf8() const { return _text.c_str(); }
    [[nodiscard]] bool empty() const { return _text.empty(); }
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override;
    [[nodiscard]] std::string description() const override { return _text; }
    friend bool operator==(const String& a, std::string_view b) { return a._text == b; }

private:
    VNT_MAKE_REF_FRIEND;
    explicit String(std::string text) : Object(kTypeId), _text(std::move(text)) { }
    const std::string _text;
};

/// A number that remembers the width it was made with; equality is by value across widths (a boolean equals
/// only a boolean).
class Number final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kNumber;
    enum class Kind : uint8_t { kBool, kInt32, kInt64, kUint64, kDouble };

    [[nodiscard]] static Ref<Number> withBool(bool value);
    [[nodiscard]] static Ref<Number> withInt(int32_t value);
    [[nodiscard]] static Ref<Number> withInt64(int64_t value);
    /// As wide as the platform's `long`.
    [[nodiscard]] static Ref<Number> withLong(long value)
    {
        return sizeof value == sizeof(int32_t) ? withInt(static_cast<int32_t>(value)) : withInt64(value);
    }
    [[nodiscard]] static Ref<Number> withUint64(uint64_t value);
    [[nodiscard]] static Ref<Number> withDouble(double value);

    [[nodiscard]] Kind kind() const { return _kind; }
    [[nodiscard]] bool isBool() const { return _kind == Kind::kBool; }
    /// Conversions are always defined: integers wrap to the low bits, doubles clamp and truncate toward zero,
    /// NaN is 0.
    [[nodiscard]] bool boolValue() const;
    [[nodiscard]] int32_t intValue() const { return static_cast<int32_t>(int64Value()); }
    [[nodiscard]] int64_t int64Value() const;
    [[nodiscard]] uint64_t uint64Value() const;
    [[nodiscard]] double doubleValue() const;

    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override;
    /// Decimal; booleans are "1" and "0"; doubles in the shortest form that reads back equal.
    [[nodiscard]] std::string description() const override;

private:
    VNT_MAKE_REF_FRIEND;
    Number(Kind kind, uint64_t bits) : Object(kTypeId), _kind(kind), _bits(bits) { }
    const Kind _kind;
    const uint64_t _bits; // the value's bit pattern, sign-extended for signed kinds
};

/// Instant, in seconds since 1 January 2001 UTC (what property lists store).
class Date final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kDate;
    [[nodiscard]] static Ref<Date> withSecondsSince2001(double seconds);
    [[nodiscard]] double secondsSince2001() const { return _seconds; }
    [[nodiscard]] double secondsSince1970() const { return _seconds + 978307200.0; }
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override;
    [[nodiscard]] std::string description() const override;

private:
    VNT_MAKE_REF_FRIEND;
    explicit Date(double seconds) : Object(kTypeId), _seconds(seconds) { }
    const double _seconds;
};

/// Bytes: an own copy, or a view of memory that the maker keeps valid for the object's life.
class Data final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kData;
    [[nodiscard]] static Ref<Data> create(std::span<const std::byte> bytes);
    [[nodiscard]] static Ref<Data> adopting(std::vector<std::byte> bytes);
    [[nodiscard]] static Ref<Data> withoutCopy(std::span<const std::byte> bytes);

    [[nodiscard]] std::span<const std::byte> bytes() const { return _view; }
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override;
    [[nodiscard]] std::string description() const override;

private:
    VNT_MAKE_REF_FRIEND;
    Data(std::vector<std::byte> owned, std::span<const std::byte> view)
        : Object(kTypeId),
          _owned(std::move(owned)),
          _view(view)
    {
    }
    const std::vector<std::byte> _owned;
    const std::span<const std::byte> _view; // into _owned, or foreign memory
};

/// The null object that stands in collections and archives for "nothing".
class Null final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kNull;
    [[nodiscard]] static Ref<Null> create();
    [[nodiscard]] bool isEqual(const Object& other) const override { return other.typeId() == kTypeId; }
    [[nodiscard]] size_t hash() const override { return 0; }
    [[nodiscard]] std::string description() const override { return "<null>"; }

private:
    VNT_MAKE_REF_FRIEND;
    Null() : Object(kTypeId) { }
};

/// A URL kept as its absolute text, for example "unix:/run/user/1000/vantora/…".
class Url final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kUrl;
    /// Null when `text` has no scheme.
    [[nodiscard]] static Ref<Url> withString(std::string_view text);
    /// "file:" URL; the path is made absolute against the current directory and percent-encoded.
    [[nodiscard]] static Ref<Url> withFilePath(std::string_view path);

    [[nodiscard]] const std::string& str() const { return _text->str(); }
    [[nodiscard]] const Ref<String>& string() const { return _text; }
    [[nodiscard]] std::string scheme() const;
    /// Decoded path part; for "unix:/a/b" and "file:///a/b" it is "/a/b".
    [[nodiscard]] std::string path() const;
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override;
    [[nodiscard]] std::string description() const override { return str(); }

private:
    VNT_MAKE_REF_FRIEND;
    explicit Url(Ref<String> text) : Object(kTypeId), _text(std::move(text)) { }
    const Ref<String> _text;
};

} // namespace vnt
