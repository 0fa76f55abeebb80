#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

/// What libFuzzer calls with every input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace vnt::fuzz {

inline std::span<const std::byte> bytesOf(const uint8_t* data, size_t size)
{
    return std::as_bytes(std::span(data, size));
}

/// What must hold whatever came in.
inline void require(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace vnt::fuzz
