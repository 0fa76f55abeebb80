#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "platform/base/Status.h"

namespace vnt {

/// The one checked reader of bytes that came from another process or a file. After the first failed read
/// every further read fails too, so a decoder may read several fields and test once.
class ByteCursor {
public:
    explicit ByteCursor(std::span<const std::byte> bytes) : _bytes(bytes) { }

    [[nodiscard]] size_t remaining() const { return _failed ? 0 : _bytes.size() - _offset; }
    [[nodiscard]] size_t offset() const { return _offset; }
    [[nodiscard]] bool failed() const { return _failed; }
    [[nodiscard]] bool atEnd() const { return !_failed && _offset == _bytes.size(); }

    /// Little-endian fixed-width integer; 0 after a failure.
    template <typename T> T little()
    {
        static_assert(std::is_integral_v<T> && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
        T value{};
        if (!has(sizeof(T)))
            return value;
        std::memcpy(&value, _bytes.data() + _offset, sizeof(T));
        _offset += sizeof(T);
        return value;
    }

    /// LEB128; fails past ten bytes or past 64 bits.
    uint64_t varint()
    {
        uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            if (!has(1))
                return 0;
            const auto byte = static_cast<uint8_t>(_bytes[_offset++]);
            if (shift == 63 && byte > 1)
                break;
            value |= static_cast<uint64_t>(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0)
                return value;
        }
        _failed = true;
        return 0;
    }

    /// Zigzag-coded LEB128.
    int64_t signedVarint()
    {
        const uint64_t raw = varint();
        return static_cast<int64_t>(raw >> 1) ^ -static_cast<int64_t>(raw & 1);
    }

    /// The next `length` bytes, at most `limit`; empty after a failure.
    std::span<const std::byte> bytes(uint64_t length, uint64_t limit)
    {
        if (length > limit || !has(length)) {
            _failed = true;
            return {};
        }
        auto result = _bytes.subspan(_offset, static_cast<size_t>(length));
        _offset += static_cast<size_t>(length);
        return result;
    }

    /// A varint length followed by that many bytes of text.
    std::string_view text(uint64_t limit)
    {
        const uint64_t length = varint();
        auto raw = bytes(length, limit);
        return {reinterpret_cast<const char*>(raw.data()), raw.size()};
    }

    void fail() { _failed = true; }

private:
    bool has(uint64_t length)
    {
        if (_failed || length > _bytes.size() - _offset) {
            _failed = true;
            return false;
        }
        return true;
    }

    std::span<const std::byte> _bytes;
    size_t _offset = 0;
    bool _failed = false;
};

} // namespace vnt
