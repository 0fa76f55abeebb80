#pragma once

#include <cstdint>

namespace vnt {

/// What role an address plays in its stack: the place where the code was, or a return address, which belongs to the
/// call before it.
enum class FrameRole : uint8_t { kExact, kReturn };

} // namespace vnt
