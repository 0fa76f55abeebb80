#include <algorithm>
#include <bit>

#include "platform/foundation/plist_codecs.h"
#include "platform/foundation/utf8.h"

namespace vnt::plist {
namespace {

/// Big-endian integer of 1 to 8 bytes; the caller has checked that they are there.
uint64_t bigEndian(std::span<const std::byte> bytes)
{
    uint64_t value = 0;
    for (const std::byte byte : bytes)
        value = value << 8 | std::to_integer<uint64_t>(byte);
    return value;
}

Ref<String> stringOfUtf16(std::span<const std::byte> bytes)
{
    std::string text;
    text.reserve(bytes.size());
    const auto unit = [&](size_t i) { return static_cast<uint32_t>(bigEndian(bytes.subspan(i * 2, 2))); };
    const size_t units = bytes.size() / 2;
    for (size_t i = 0; i < units; ++i) {
        uint32_t codePoint = unit(i);
        if (codePoint >= 0xd800 && codePoint < 0xdc00 && i + 1 < units) {
            const uint32_t low = unit(i + 1);
            if (low >= 0xdc00 && low < 0xe000) {
                codePoint = 0x10000 + ((codePoint - 0xd800) << 10) + (low - 0xdc00);
                ++i;
            }
        }
        appendUtf8(text, codePoint);
    }
    return String::create(text);
}

/// Decodes one property list. Objects are made from the leaves up with a stack of open collections. Every object takes
/// the bytes that it occupies from a budget of the input's size: only objects that overlap can pass it, which is how a
/// small input would otherwise ask for endless work.
class BinaryReader {
public:
    BinaryReader(std::span<const std::byte> bytes, const PropertyListLimits& limits)
        : _bytes(bytes),
          _limits(limits) { }

    Result<Ref<Object>> read()
    {
        RETURN_IF_ERROR(readTrailer());
        _objects.resize(_objectCount);
        _states.resize(_objectCount);
        RETURN_IF_ERROR(begin(_topObject));
        while (!_open.empty())
            RETURN_IF_ERROR(step());
        return _objects[_topObject];
    }

private:
    /// What is known of an object number: nothing, that it is being read, or the height of the finished object (1 for a
    /// value). The height and not the depth at which it was met is limited: shared parts are met at one depth only.
    static constexpr uint32_t kUnknown = 0;
    static constexpr uint32_t kBeingRead = UINT32_MAX;

    struct OpenCollection {
        uint32_t object;
        bool isDictionary;
        uint32_t height = 1;
        size_t firstReference; // offset of the references
        size_t count; // keys and values counted separately
        size_t next = 0;
    };

    Status readTrailer()
    {
        if (_bytes.size() < kBinaryMagic.size() + 1 + kTrailerBytes)
            return invalidAt(_bytes.size(), "too short");
        const size_t trailer = _bytes.size() - kTrailerBytes;
        _offsetBytes = std::to_integer<size_t>(_bytes[trailer + kTrailerUnusedBytes]);
        _referenceBytes = std::to_integer<size_t>(_bytes[trailer + kTrailerUnusedBytes + 1]);
        const uint64_t objects = bigEndian(_bytes.subspan(trailer + 8, 8));
        const uint64_t top = bigEndian(_bytes.subspan(trailer + 16, 8));
        const uint64_t table = bigEndian(_bytes.subspan(trailer + 24, 8));
        if (_offsetBytes < 1 || _offsetBytes > 8 || _referenceBytes < 1 || _referenceBytes > 8)
            return invalidAt(trailer, "bad width of offsets or references");
        if (objects > _limits.maxObjects)
            return Status(Code::kTooLarge,
                          "property list: " + std::to_string(objects) + " objects, limit "
                              + std::to_string(_limits.maxObjects));
        if (table < kBinaryMagic.size() + 1 || table > trailer || objects > (trailer - table) / _offsetBytes)
            return invalidAt(trailer, "offset table outside the input");
        if (top >= objects)
            return invalidAt(trailer, "no such top object");
        _table = static_cast<size_t>(table);
        _objectCount = static_cast<size_t>(objects);
        _topObject = static_cast<size_t>(top);
        _budget = _table;
        _keyBudget = _bytes.size() * kKeyBytesPerInputByte;
        return {};
    }

    /// The `count` bytes at `offset` of the object area.
    Result<std::span<const std::byte>> take(size_t offset, uint64_t count)
    {
        if (offset > _table || count > _table - offset)
            return invalidAt(offset, "object passes the end of the objects");
        if (count > _budget)
            return invalidAt(offset, "objects overlap");
        _budget -= static_cast<size_t>(count);
        return _bytes.subspan(offset, static_cast<size_t>(count));
    }

    /// Reads a value whole, or opens a collection.
    Status begin(size_t object)
    {
        const uint64_t offset = bigEndian(_bytes.subspan(_table + object * _offsetBytes, _offsetBytes));
        if (offset < kBinaryMagic.size() + 1 || offset >= _table)
            return invalidAt(_table + object * _offsetBytes, "object outside the input");
        size_t at = static_cast<size_t>(offset);
        ASSIGN_OR_RETURN(const auto first, take(at, 1));
        const auto marker = std::to_integer<uint8_t>(first[0]);
        ++at;
        const auto type = static_cast<Marker>(marker & 0xf0);
        if (type == Marker::kArray || type == Marker::kDictionary)
            return beginCollection(object, at, marker);
        ASSIGN_OR_RETURN(_objects[object], readValue(at, marker));
        _states[object] = 1;
        return {};
    }

    /// The count in the low half of a marker, or in the integer that follows when that is 15.
    Result<uint64_t> readCount(size_t& at, uint8_t marker)
    {
        if ((marker & 0x0f) != 0x0f)
            return uint64_t{marker & 0x0fU};
        ASSIGN_OR_RETURN(const auto head, take(at, 1));
        const auto width = std::to_integer<uint8_t>(head[0]);
        if ((width & 0xf0) != static_cast<uint8_t>(Marker::kInteger) || (width & 0x0f) > 3)
            return invalidAt(at, "bad count");
        ++at;
        const size_t size = size_t{1} << (width & 0x0f);
        ASSIGN_OR_RETURN(const auto digits, take(at, size));
        at += size;
        return bigEndian(digits);
    }

    Status beginCollection(size_t object, size_t at, uint8_t marker)
    {
        const bool isDictionary = (marker & 0xf0) == static_cast<uint8_t>(Marker::kDictionary);
        ASSIGN_OR_RETURN(const uint64_t count, readCount(at, marker));
        if (count > _table)
            return invalidAt(at, "count passes the end of the objects");
        const uint64_t references = isDictionary ? count * 2 : count;
        RETURN_IF_ERROR(take(at, references * _referenceBytes).status());
        if (_open.size() >= _limits.maxDepth)
            return tooDeep();
        _states[object] = kBeingRead;
        _open.push_back({.object = static_cast<uint32_t>(object),
                         .isDictionary = isDictionary,
                         .firstReference = at,
                         .count = static_cast<size_t>(references)});
        return {};
    }

    [[nodiscard]] Status tooDeep() const
    {
        return Status(Code::kTooLarge,
                      "property list: nested deeper than " + std::to_string(_limits.maxDepth) + " levels");
    }

    [[nodiscard]] size_t referenceAt(const OpenCollection& open, size_t index) const
    {
        const uint64_t reference =
            bigEndian(_bytes.subspan(open.firstReference + index * _referenceBytes, _referenceBytes));
        return reference < _objectCount ? static_cast<size_t>(reference) : _objectCount;
    }

    /// Looks at the next reference of the innermost collection, or finishes it.
    Status step()
    {
        OpenCollection& open = _open.back();
        while (open.next < open.count) {
            const size_t reference = referenceAt(open, open.next);
            if (reference == _objectCount)
                return invalidAt(open.firstReference, "reference to no object");
            if (_states[reference] == kBeingRead)
                return invalidAt(open.firstReference, "a collection holds itself");
            if (_states[reference] == kUnknown) {
                const size_t depth = _open.size();
                RETURN_IF_ERROR(begin(reference));
                if (_open.size() != depth)
                    return {}; // `open` may have moved
            }
            open.height = std::max(open.height, _states[reference] + 1);
            ++open.next;
        }
        return finish();
    }

    Status finish()
    {
        const OpenCollection open = _open.back();
        _open.pop_back();
        if (open.height > _limits.maxDepth + 1)
            return tooDeep();
        _states[open.object] = open.height;
        if (open.isDictionary)
            return finishDictionary(open);
        std::vector<Ref<Object>> items;
        items.reserve(open.count);
        for (size_t i = 0; i < open.count; ++i)
            items.push_back(_objects[referenceAt(open, i)]);
        _objects[open.object] = Array::create(std::move(items));
        return {};
    }

    Status finishDictionary(const OpenCollection& open)
    {
        std::vector<Dictionary::Entry> entries;
        entries.reserve(open.count / 2);
        for (size_t i = 0; i < open.count / 2; ++i) {
            const Ref<Object>& key = _objects[referenceAt(open, i)];
            if (key->typeId() != TypeId::kString && key->typeId() != TypeId::kNumber)
                return invalidAt(open.firstReference, "key is neither string nor number");
            if (keyBytes(*key) > _keyBudget)
                return invalidAt(open.firstReference, "one long key used over and over");
            _keyBudget -= keyBytes(*key);
            entries.emplace_back(key, _objects[referenceAt(open, open.count / 2 + i)]);
        }
        _objects[open.object] = Dictionary::create(entries);
        return {};
    }

    Result<Ref<Object>> readValue(size_t at, uint8_t marker)
    {
        switch (static_cast<Marker>(marker)) {
        case Marker::kNull:
            return Ref<Object>(Null::create());
        case Marker::kFalse:
            return Ref<Object>(Number::withBool(false));
        case Marker::kTrue:
            return Ref<Object>(Number::withBool(true));
        case Marker::kDate: {
            ASSIGN_OR_RETURN(const auto bits, take(at, 8));
            return Ref<Object>(Date::withSecondsSince2001(std::bit_cast<double>(bigEndian(bits))));
        }
        default:
            break;
        }
        switch (static_cast<Marker>(marker & 0xf0)) {
        case Marker::kInteger:
            return readInteger(at, marker & 0x0f);
        case Marker::kReal:
            return readReal(at, marker & 0x0f);
        case Marker::kData:
        case Marker::kAscii:
        case Marker::kUtf16:
            return readBytes(at, marker);
        case Marker::kUid: {
            const size_t size = (marker & 0x0fU) + 1;
            if (size > 8)
                return invalidAt(at, "UID wider than 8 bytes");
            ASSIGN_OR_RETURN(const auto digits, take(at, size));
            return Ref<Object>(Uid::create(bigEndian(digits)));
        }
        default:
            return invalidAt(at - 1, "unknown object type " + std::to_string(marker));
        }
    }

    /// 1, 2 and 4 bytes are unsigned and 8 are signed in this format. 16 bytes stand for what the others cannot say:
    /// a 32-bit number below zero, or an unsigned 64-bit one.
    Result<Ref<Object>> readInteger(size_t at, unsigned logarithm)
    {
        if (logarithm > 4)
            return invalidAt(at - 1, "integer wider than 16 bytes");
        const size_t size = size_t{1} << logarithm;
        ASSIGN_OR_RETURN(const auto digits, take(at, size));
        const uint64_t low = bigEndian(digits.last(std::min<size_t>(size, 8)));
        const auto value = static_cast<int64_t>(low);
        if (size <= 4 && low <= INT32_MAX)
            return Ref<Object>(Number::withInt(static_cast<int32_t>(low)));
        if (size <= 8)
            return Ref<Object>(Number::withInt64(value));
        const uint64_t high = bigEndian(digits.first(8));
        if (high == 0)
            return Ref<Object>(Number::withUint64(low));
        if (high != UINT64_MAX || value >= 0)
            return invalidAt(at, "integer beyond 64 bits");
        if (value >= INT32_MIN)
            return Ref<Object>(Number::withInt(static_cast<int32_t>(value)));
        return Ref<Object>(Number::withInt64(value));
    }

    Result<Ref<Object>> readReal(size_t at, unsigned logarithm)
    {
        if (logarithm != 2 && logarithm != 3)
            return invalidAt(at - 1, "bad width of a real number");
        ASSIGN_OR_RETURN(const auto bits, take(at, size_t{1} << logarithm));
        if (logarithm == 3)
            return Ref<Object>(Number::withDouble(std::bit_cast<double>(bigEndian(bits))));
        const auto single = static_cast<uint32_t>(bigEndian(bits));
        return Ref<Object>(Number::withDouble(static_cast<double>(std::bit_cast<float>(single))));
    }

    Result<Ref<Object>> readBytes(size_t at, uint8_t marker)
    {
        const auto type = static_cast<Marker>(marker & 0xf0);
        ASSIGN_OR_RETURN(const uint64_t count, readCount(at, marker));
        if (count > _table)
            return invalidAt(at, "count passes the end of the objects");
        ASSIGN_OR_RETURN(const auto content, take(at, type == Marker::kUtf16 ? count * 2 : count));
        if (type == Marker::kData)
            return Ref<Object>(Data::create(content));
        if (type == Marker::kUtf16)
            return Ref<Object>(stringOfUtf16(content));
        return Ref<Object>(String::create({reinterpret_cast<const char*>(content.data()), content.size()}));
    }

    const std::span<const std::byte> _bytes;
    const PropertyListLimits& _limits;
    size_t _offsetBytes = 0;
    size_t _referenceBytes = 0;
    size_t _objectCount = 0;
    size_t _topObject = 0;
    size_t _table = 0;
    size_t _budget = 0;
    uint64_t _keyBudget = 0;
    std::vector<Ref<Object>> _objects;
    std::vector<uint32_t> _states;
    std::vector<OpenCollection> _open;
};

} // namespace

Result<Ref<Object>> readBinary(std::span<const std::byte> bytes, const PropertyListLimits& limits)
{
    return BinaryReader(bytes, limits).read();
}

} // namespace vnt::plist
