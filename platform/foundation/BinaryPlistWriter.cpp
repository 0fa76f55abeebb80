#include <algorithm>
#include <bit>

#include "platform/foundation/ObjectGraph.h"
#include "platform/foundation/plist_codecs.h"
#include "platform/foundation/utf8.h"

namespace vnt::plist {
namespace {

/// What a binary property list can hold.
Status accepts(const Object& object)
{
    switch (object.typeId()) {
    case TypeId::kNull:
    case TypeId::kString:
    case TypeId::kNumber:
    case TypeId::kDate:
    case TypeId::kData:
    case TypeId::kUid:
    case TypeId::kArray:
        return {};
    case TypeId::kDictionary:
        for (const auto& entry : static_cast<const Dictionary&>(object).entries()) {
            const TypeId type = entry.first->typeId();
            if (type != TypeId::kString && type != TypeId::kNumber)
                return Status(Code::kUnsupported, "a key is neither string nor number");
        }
        return {};
    default:
        return Status(Code::kUnsupported, object.description() + " is of no property-list type");
    }
}

size_t widthOf(uint64_t value) { return value < 0x100 ? 1 : value < 0x10000 ? 2 : value < 0x1'0000'0000 ? 4 : 8; }

class BinaryWriter {
public:
    Result<std::vector<std::byte>> write(const Object& root, size_t capacityBytes)
    {
        uint32_t top = 0; // the first object has number 0
        if (const Status status = _graph.add(root, top); !status.ok())
            return Status(status.code(), "property list: " + status.message());
        _referenceBytes = widthOf(_graph.count() - 1);
        _out.reserve(std::max(capacityBytes, kTrailerBytes + 32 + _graph.count() * 16));
        put(kBinaryMagic.data(), kBinaryMagic.size());
        put("0", 1);
        _offsets.reserve(_graph.count());
        for (size_t i = 0; i < _graph.count(); ++i) {
            _offsets.push_back(_out.size());
            writeObject(i);
        }
        writeTable();
        return std::move(_out);
    }

private:
    void put(const void* data, size_t size)
    {
        const auto* first = static_cast<const std::byte*>(data);
        _out.insert(_out.end(), first, first + size);
    }

    void putBigEndian(uint64_t value, size_t size)
    {
        const uint64_t swapped = __builtin_bswap64(value);
        put(reinterpret_cast<const std::byte*>(&swapped) + (8 - size), size);
    }

    void putMarker(Marker type, unsigned low = 0)
    {
        _out.push_back(static_cast<std::byte>(static_cast<unsigned>(type) | low));
    }

    void putHead(Marker type, uint64_t count)
    {
        putMarker(type, count < 15 ? static_cast<unsigned>(count) : 15);
        if (count < 15)
            return;
        const size_t width = widthOf(count);
        putMarker(Marker::kInteger, static_cast<unsigned>(std::countr_zero(width)));
        putBigEndian(count, width);
    }

    void writeObject(size_t index)
    {
        const Object& object = _graph.at(index);
        switch (object.typeId()) {
        case TypeId::kString:
            return writeString(static_cast<const String&>(object).str());
        case TypeId::kNumber:
            return writeNumber(static_cast<const Number&>(object));
        case TypeId::kDate:
            putMarker(Marker::kDate);
            return putBigEndian(std::bit_cast<uint64_t>(static_cast<const Date&>(object).secondsSince2001()), 8);
        case TypeId::kData: {
            const auto bytes = static_cast<const Data&>(object).bytes();
            putHead(Marker::kData, bytes.size());
            return put(bytes.data(), bytes.size());
        }
        case TypeId::kUid: {
            const uint64_t value = static_cast<const Uid&>(object).value();
            putMarker(Marker::kUid, static_cast<unsigned>(widthOf(value) - 1));
            return putBigEndian(value, widthOf(value));
        }
        case TypeId::kArray:
            putHead(Marker::kArray, _graph.held(index).size());
            return writeReferences(index);
        case TypeId::kDictionary:
            putHead(Marker::kDictionary, _graph.held(index).size() / 2);
            return writeReferences(index);
        default:
            return putMarker(Marker::kNull);
        }
    }

    void writeReferences(size_t index)
    {
        for (const uint32_t number : _graph.held(index))
            putBigEndian(number, _referenceBytes);
    }

    void writeString(const std::string& text)
    {
        bool ascii = true;
        for (const char c : text)
            ascii = ascii && static_cast<unsigned char>(c) < 0x80;
        if (ascii) {
            putHead(Marker::kAscii, text.size());
            return put(text.data(), text.size());
        }
        size_t units = 0;
        for (size_t offset = 0; offset < text.size();)
            units += nextCodePoint(text, offset) > 0xffff ? 2 : 1;
        putHead(Marker::kUtf16, units);
        for (size_t offset = 0; offset < text.size();) {
            const uint32_t codePoint = nextCodePoint(text, offset);
            if (codePoint > 0xffff)
                putBigEndian(0xd800 + ((codePoint - 0x10000) >> 10), 2);
            putBigEndian(codePoint > 0xffff ? 0xdc00 + ((codePoint - 0x10000) & 0x3ff) : codePoint, 2);
        }
    }

    void writeNumber(const Number& number)
    {
        switch (number.kind()) {
        case Number::Kind::kBool:
            return putMarker(number.boolValue() ? Marker::kTrue : Marker::kFalse);
        case Number::Kind::kDouble:
            putMarker(Marker::kReal, 3);
            return putBigEndian(std::bit_cast<uint64_t>(number.doubleValue()), 8);
        case Number::Kind::kInt64:
            putMarker(Marker::kInteger, 3);
            return putBigEndian(number.uint64Value(), 8);
        case Number::Kind::kInt32:
            if (number.int64Value() >= 0) {
                putMarker(Marker::kInteger, 2);
                return putBigEndian(number.uint64Value(), 4);
            }
            break;
        case Number::Kind::kUint64:
            break;
        }
        putMarker(Marker::kInteger, 4);
        putBigEndian(number.kind() == Number::Kind::kInt32 ? UINT64_MAX : 0, 8);
        putBigEndian(number.uint64Value(), 8);
    }

    void writeTable()
    {
        const size_t table = _out.size();
        const size_t width = widthOf(table);
        _out.reserve(table + _offsets.size() * width + kTrailerBytes);
        for (const size_t offset : _offsets)
            putBigEndian(offset, width);
        putBigEndian(0, kTrailerUnusedBytes);
        putBigEndian(width, 1);
        putBigEndian(_referenceBytes, 1);
        putBigEndian(_offsets.size(), 8);
        putBigEndian(0, 8);
        putBigEndian(table, 8);
    }

    ObjectGraph _graph{accepts};
    std::vector<size_t> _offsets;
    std::vector<std::byte> _out;
    size_t _referenceBytes = 1;
};

} // namespace

Result<std::vector<std::byte>> writeBinary(const Object& root, size_t capacityBytes)
{
    return BinaryWriter().write(root, capacityBytes);
}

} // namespace vnt::plist
