#pragma once

#include <cstddef>
#include <span>

#include "platform/base/Mapping.h"
#include "platform/base/UniqueFd.h"

/// Memory that travels beside a message.
namespace vnt {

/// Up to this many bytes of one message travel inside the packet; more goes as sealed memory files.
inline constexpr size_t kMaxInlineMemoryBytes = size_t{128} * 1024;
/// All memory of one message: a receiver's address space is its own to plan.
inline constexpr size_t kMaxOutOfLineBytes = size_t{256} << 20;

/// A memory file with a copy of `bytes`, sealed against every change (memfd_create(2)).
Result<UniqueFd> makeSealedMemory(std::span<const std::byte> bytes);

/// Private, writable mapping of exactly `sizeBytes` of a memory file from a peer. kInvalid unless the file is an
/// ordinary memory file of that size, sealed so that neither its size nor its content can change any more.
Result<Mapping> mapSealedMemory(int fd, size_t sizeBytes);

/// Private mapping with a copy of `bytes`; an empty mapping for none.
Result<Mapping> mapCopy(std::span<const std::byte> bytes);

/// Hands a mapping to the caller of mach_msg, to be given back with releaseRegion(). Any thread.
std::span<std::byte> publishRegion(Mapping mapping);
/// False when no region handed out begins at `address`.
bool releaseRegion(const void* address);
/// Size of the region handed out at `address`, 0 when there is none. A count that a peer put beside its memory must
/// not pass it.
size_t regionSize(const void* address);

} // namespace vnt
