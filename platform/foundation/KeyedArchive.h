#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "platform/foundation/PropertyList.h"

namespace vnt {

/// Writes a keyed archive: a binary property list with "$version" 100000, "$archiver" "NSKeyedArchiver",
/// "$top" (keys in the order of the encode calls) and "$objects" (first "$null"). Collections, URLs and dates
/// carry their class entries; strings, numbers and data stand directly in the table. Single thread.
class KeyedArchiver {
public:
    explicit KeyedArchiver(size_t initialCapacityBytes = 256);
    ~KeyedArchiver();

    void encodeInt64(int64_t value, std::string_view key);
    void encodeInt32(int32_t value, std::string_view key);
    void encodeInt(int value, std::string_view key) { encodeInt32(value, key); }
    void encodeBool(bool value, std::string_view key);
    /// Null is archived as the null object. Shared objects are written once. `object` and what it holds must not change
    /// before finish().
    void encodeObject(const Object* object, std::string_view key);

    /// The finished archive; nothing may be encoded afterwards. Errors: kUnsupported for an object of a class
    /// that cannot be archived, for a collection that holds itself, and for one that is a key or member of a set.
    Result<std::vector<std::byte>> finish();

private:
    struct State;
    std::unique_ptr<State> _state;
};

/// Reads a keyed archive written by KeyedArchiver (or by the same format's other writers, for the classes
/// named there). The input is untrusted: limits as for property lists; objects that hold themselves, are of an unknown
/// class or are damaged otherwise read as null, and the other keys stay readable.
class KeyedUnarchiver {
public:
    /// Errors: those of readPropertyList(), kInvalid for a property list that is no archive.
    static Result<KeyedUnarchiver> open(std::span<const std::byte> bytes, const PropertyListLimits& limits = {});

    /// Every key in the order written.
    [[nodiscard]] std::vector<std::string> keys() const;
    [[nodiscard]] bool has(std::string_view key) const;
    /// Number or boolean under the key, converted; `fallback` when absent or of another type.
    [[nodiscard]] int64_t decodeInt64(std::string_view key, int64_t fallback = 0) const;
    [[nodiscard]] bool decodeBool(std::string_view key, bool fallback = false) const;
    /// Null when absent, archived as null, or damaged.
    [[nodiscard]] Ref<Object> decodeObject(std::string_view key) const;

private:
    explicit KeyedUnarchiver(Ref<Dictionary> top) : _top(std::move(top)) { }
    Ref<Dictionary> _top; // key -> value with every reference resolved
};

} // namespace vnt
