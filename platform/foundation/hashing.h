#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vnt {

/// Hash of `bytes` under a key that is random in each process: a peer that chooses the keys of a dictionary cannot make
/// them collide (SipHash-1-3). About 15 ns for a short key.
[[nodiscard]] size_t hashBytes(std::string_view bytes) noexcept;

/// The same for one 64-bit value; `domain` keeps values of different meaning apart.
[[nodiscard]] size_t hashValue(uint64_t value, uint8_t domain) noexcept;

} // namespace vnt
