#pragma once

#include <span>
#include <vector>

#include "platform/base/Status.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// Limits on untrusted property lists. Defaults suit messages of the transport; files may raise maxBytes.
struct PropertyListLimits {
    size_t maxBytes = size_t{64} << 20;
    size_t maxObjects = 4u << 20;
    size_t maxDepth = 512;
};

enum class PropertyListFormat { kBinary, kXml };

/// Reads a binary ("bplist00") or XML property list, told apart by its first bytes. The result is immutable.
/// Types: string, number, boolean, date, data, array, dictionary; the binary form may also hold UIDs (as a
/// Uid object) and null. No recursion on input; duplicate references are shared; cycles are refused.
/// Errors: kInvalid with the offset and what was wrong, kTooLarge past a limit.
Result<Ref<Object>> readPropertyList(std::span<const std::byte> bytes, const PropertyListLimits& limits = {});

/// Writes a property list. Equal strings, numbers and data are written once in the binary form; collections held in
/// several places too, so sharing survives. Keys are strings; the binary form also takes number keys (used between our
/// own processes). In the binary form a number keeps its kind: 4 bytes are an int32 (the format has them unsigned), 8
/// an int64, 16 an int32 below zero or a uint64; integers of other writers become int32 when they have at most 4 bytes
/// and fit, else int64. XML has no widths: the narrowest of int32, int64, uint64 is read. A call's argument array takes
/// about a microsecond each way.
/// Errors: kUnsupported for an object that is not a property-list type, a collection that holds itself, or a text that
/// XML cannot hold; kTooLarge for more than 512 levels, or more than 256 MiB of XML.
Result<std::vector<std::byte>> writePropertyList(const Object& root, PropertyListFormat format);

/// A reference into a keyed archive's object table; appears only inside archives.
class Uid final : public Object {
public:
    static constexpr TypeId kTypeId = TypeId::kUid;
    [[nodiscard]] static Ref<Uid> create(uint64_t value);
    [[nodiscard]] uint64_t value() const { return _value; }
    [[nodiscard]] bool isEqual(const Object& other) const override;
    [[nodiscard]] size_t hash() const override { return static_cast<size_t>(_value); }

private:
    VNT_MAKE_REF_FRIEND;
    explicit Uid(uint64_t value) : Object(kTypeId), _value(value) { }
    const uint64_t _value;
};

} // namespace vnt
