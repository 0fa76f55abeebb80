#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

namespace vnt {

/// Appends what ByteCursor reads. Little-endian throughout.
class ByteWriter {
public:
    template <typename T> void little(T value)
    {
        static_assert(std::is_integral_v<T> && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
        raw(&value, sizeof value);
    }

    void varint(uint64_t value)
    {
        while (value >= 0x80) {
            _bytes.push_back(static_cast<std::byte>(value | 0x80));
            value >>= 7;
        }
        _bytes.push_back(static_cast<std::byte>(value));
    }

    void signedVarint(int64_t value)
    {
        varint((static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63));
    }

    void raw(const void* data, size_t size)
    {
        const auto* first = static_cast<const std::byte*>(data);
        _bytes.insert(_bytes.end(), first, first + size);
    }

    void text(std::string_view value)
    {
        varint(value.size());
        raw(value.data(), value.size());
    }

    [[nodiscard]] size_t size() const { return _bytes.size(); }
    [[nodiscard]] std::span<const std::byte> view() const { return _bytes; }
    [[nodiscard]] std::vector<std::byte> take() { return std::move(_bytes); }
    void clear() { _bytes.clear(); }
    void reserve(size_t size) { _bytes.reserve(size); }

    /// Overwrites bytes written earlier, for a length known only at the end.
    void patch(size_t offset, const void* data, size_t size) { std::memcpy(_bytes.data() + offset, data, size); }

private:
    std::vector<std::byte> _bytes;
};

} // namespace vnt
