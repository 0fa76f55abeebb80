#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "platform/mach/mach.h"

/// In-memory layout of message descriptors, written once with the pointer width as a parameter: `uint32_t` for a
/// 32-bit process, `uint64_t` for a 64-bit one. Every descriptor has its flags word at offset 8.
namespace vnt {

using NativeAddress = std::conditional_t<sizeof(void*) == 8, uint64_t, uint32_t>;

inline constexpr size_t kMessageHeaderBytes = sizeof(mach_msg_header_t);
static_assert(kMessageHeaderBytes == 24);
inline constexpr size_t kDescriptorFlagsOffset = 8;

#pragma pack(push, 4) // descriptors follow a 28-byte prefix: addresses are aligned to 4 only
template <typename Address> struct OutOfLineDescriptor;

template <> struct OutOfLineDescriptor<uint64_t> {
    uint64_t address;
    uint32_t flags;
    uint32_t size;
};

template <> struct OutOfLineDescriptor<uint32_t> {
    uint32_t address;
    uint32_t size;
    uint32_t flags;
};

struct PortDescriptor {
    uint32_t name;
    uint32_t padding;
    uint32_t flags;
};
#pragma pack(pop)

static_assert(sizeof(OutOfLineDescriptor<uint64_t>) == 16 && offsetof(OutOfLineDescriptor<uint64_t>, flags) == 8);
static_assert(sizeof(OutOfLineDescriptor<uint32_t>) == 12 && offsetof(OutOfLineDescriptor<uint32_t>, flags) == 8);
static_assert(sizeof(PortDescriptor) == 12 && offsetof(PortDescriptor, flags) == 8);

/// Flags word of an out-of-line descriptor: deallocate, copy, padding, type; one byte each from the lowest up.
constexpr uint32_t outOfLineFlags(bool deallocate)
{
    return (deallocate ? 1u : 0u) | uint32_t{MACH_MSG_VIRTUAL_COPY} << 8 | uint32_t{MACH_MSG_OOL_DESCRIPTOR} << 24;
}
/// Flags word of a port descriptor: 16 bits of padding, disposition, type.
constexpr uint32_t portFlags(uint32_t disposition)
{
    return disposition << 16 | uint32_t{MACH_MSG_PORT_DESCRIPTOR} << 24;
}
constexpr uint32_t descriptorType(uint32_t flags) { return flags >> 24; }
constexpr uint32_t portDisposition(uint32_t flags) { return flags >> 16 & 0xff; }
constexpr bool wantsDeallocate(uint32_t flags) { return (flags & 0xff) != 0; }

} // namespace vnt
