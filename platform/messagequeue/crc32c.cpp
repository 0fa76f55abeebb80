#include <nmmintrin.h>

#include <array>
#include <cstring>

#include "platform/messagequeue/MessageStream.h"

namespace vnt {
namespace {

/// The Castagnoli polynomial, bits reversed as the processor's crc32 instruction (SSE 4.2) has it.
constexpr uint32_t kPolynomial = 0x82f63b78;

constexpr uint32_t shiftedByBit(uint32_t state) { return state >> 1 ^ (kPolynomial & (0 - (state & 1))); }

using ByteTable = std::array<uint32_t, 256>;

constexpr ByteTable makeByteTable()
{
    ByteTable table{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t state = byte;
        for (int bit = 0; bit < 8; ++bit)
            state = shiftedByBit(state);
        table[byte] = state;
    }
    return table;
}
constexpr ByteTable kByteTable = makeByteTable();

/// Bytes of one of the three lanes that the processor works on at once: the instruction takes three cycles and can
/// be begun in every one.
constexpr size_t kLaneBytes = 1024;

/// kLaneTables[i][b]: what byte i of a state, being b, is after kLaneBytes zero bytes. The operation is linear: a state
/// is advanced by the xor of four entries.
using LaneTables = std::array<ByteTable, 4>;

constexpr LaneTables makeLaneTables()
{
    LaneTables tables{};
    for (uint32_t bit = 0; bit < 32; ++bit) {
        uint32_t state = uint32_t{1} << bit;
        for (size_t zero = 0; zero < kLaneBytes; ++zero)
            state = state >> 8 ^ kByteTable[state & 0xff];
        for (uint32_t byte = 0; byte < 256; ++byte) {
            if (byte >> (bit % 8) & 1)
                tables[bit / 8][byte] ^= state;
        }
    }
    return tables;
}
constexpr LaneTables kLaneTables = makeLaneTables();

uint32_t advancedByLane(uint32_t state)
{
    return kLaneTables[0][state & 0xff] ^ kLaneTables[1][state >> 8 & 0xff] ^ kLaneTables[2][state >> 16 & 0xff]
        ^ kLaneTables[3][state >> 24];
}

#if defined(__x86_64__)
using Word = uint64_t;
__attribute__((target("sse4.2"))) inline uint32_t step(uint32_t state, Word word)
{
    return static_cast<uint32_t>(_mm_crc32_u64(state, word));
}
#else
using Word = uint32_t;
__attribute__((target("sse4.2"))) inline uint32_t step(uint32_t state, Word word) { return _mm_crc32_u32(state, word); }
#endif

inline Word wordAt(const std::byte* at)
{
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

__attribute__((target("sse4.2"))) uint32_t byInstruction(uint32_t state, const std::byte* at, size_t size)
{
    for (; size >= 3 * kLaneBytes; size -= 3 * kLaneBytes, at += 3 * kLaneBytes) {
        uint32_t second = 0;
        uint32_t third = 0;
        for (size_t i = 0; i < kLaneBytes; i += sizeof(Word)) {
            state = step(state, wordAt(at + i));
            second = step(second, wordAt(at + kLaneBytes + i));
            third = step(third, wordAt(at + 2 * kLaneBytes + i));
        }
        state = advancedByLane(advancedByLane(state) ^ second) ^ third;
    }
    for (; size >= sizeof(Word); size -= sizeof(Word), at += sizeof(Word))
        state = step(state, wordAt(at));
    for (; size > 0; --size, ++at)
        state = _mm_crc32_u8(state, static_cast<uint8_t>(*at));
    return state;
}

} // namespace

uint32_t crc32cPortable(std::span<const std::byte> bytes, uint32_t previous)
{
    uint32_t state = ~previous;
    for (const std::byte byte : bytes)
        state = state >> 8 ^ kByteTable[(state ^ static_cast<uint32_t>(byte)) & 0xff];
    return ~state;
}

uint32_t crc32c(std::span<const std::byte> bytes, uint32_t previous)
{
    if (!__builtin_cpu_supports("sse4.2"))
        return crc32cPortable(bytes, previous);
    return ~byInstruction(~previous, bytes.data(), bytes.size());
}

} // namespace vnt
