#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "collectors/unwind/CallFrames.h"

namespace vnt {

/// Registers of one frame, by DWARF's numbers. Of frames that called, only those that lead outwards are known.
struct FrameRegisters {
    static constexpr size_t kCount = 17; ///< x86-64: general registers and the return address; 32-bit code has fewer
    uint64_t value[kCount] = {};
    uint32_t known = 0; ///< one bit for each

    void set(uint64_t number, uint64_t to)
    {
        value[number] = to;
        known |= uint32_t{1} << number;
    }
    [[nodiscard]] std::optional<uint64_t> get(uint64_t number) const
    {
        if (number >= kCount || (known >> number & 1) == 0)
            return std::nullopt;
        return value[number];
    }
};

/// The copied part of a stack: `bytes` from address `low`. Remembers how far out it was read.
class StackDump {
public:
    StackDump(uint64_t low, const std::byte* data, size_t bytes, uint8_t wordBytes)
        : _low(low),
          _data(data),
          _bytes(bytes),
          _wordBytes(wordBytes)
    {
    }
    /// Nothing for an address outside; wentBeyond() tells whether more of the stack would have had it.
    std::optional<uint64_t> read(uint64_t address)
    {
        const uint64_t offset = address - _low;
        if (offset >= _bytes || _bytes - offset < _wordBytes) {
            _beyond = _beyond || (address >= _low && offset < kReach);
            return std::nullopt;
        }
        if (offset + _wordBytes > _reach)
            _reach = offset + _wordBytes;
        uint64_t value = 0;
        __builtin_memcpy(&value, _data + offset, _wordBytes); // little-endian
        return value;
    }
    [[nodiscard]] bool holds(uint64_t address) const
    {
        return address - _low < _bytes && _bytes - (address - _low) >= _wordBytes;
    }
    [[nodiscard]] size_t reach() const { return _reach; }
    [[nodiscard]] bool wentBeyond() const { return _beyond; }
    [[nodiscard]] uint8_t wordBytes() const { return _wordBytes; }

private:
    /// Farther out is no place of this stack: 8 MiB is the usual limit, 64 a generous one.
    static constexpr uint64_t kReach = 64u << 20;

    uint64_t _low;
    const std::byte* _data;
    size_t _bytes;
    uint8_t _wordBytes;
    size_t _reach = 0;
    bool _beyond = false;
};

/// The result of a DWARF expression (operations that call-frame information uses; no jumps), or nothing when it needs
/// what is not known. `canonical`: pushed first, for a register's rule.
std::optional<uint64_t> evaluate(const uint8_t* expression, size_t sizeBytes, const FrameRegisters& registers,
                                 StackDump& dump, std::optional<uint64_t> canonical);

} // namespace vnt
