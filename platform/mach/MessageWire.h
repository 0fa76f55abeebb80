#pragma once

#include <span>
#include <vector>

#include "platform/mach/PacketSocket.h"

/// How one port message stands in one packet (docs/protocol-ports.md): a header, one record per descriptor, the body,
/// inline memory. Fixed-width little-endian integers only, so that 32-bit and 64-bit processes understand each other.
namespace vnt {

inline constexpr uint32_t kMessageMagic = 0x47534d56; // "VMSG"
inline constexpr uint16_t kMessageVersion = 1;
/// Header, descriptors and body of one message in memory; the largest message of ours is 32,064 bytes.
inline constexpr size_t kMaxMessageBytes = size_t{64} * 1024;
inline constexpr size_t kMaxMessageDescriptors = 64;
inline constexpr size_t kWireHeaderBytes = 24;
inline constexpr size_t kWireDescriptorBytes = 16;

enum class WireDescriptorKind : uint8_t {
    kPort = 0, ///< one descriptor travels
    kNullPort = 1, ///< the name was MACH_PORT_NULL
    kDeadPort = 2, ///< the name was dead
    kInlineMemory = 3, ///< follows the body
    kMemoryFile = 4, ///< one sealed memory file travels
};

struct WireDescriptor {
    WireDescriptorKind kind = WireDescriptorKind::kNullPort;
    uint8_t arrivesAs = 0; ///< port: MACH_MSG_TYPE_MOVE_SEND or MACH_MSG_TYPE_MOVE_SEND_ONCE
    uint64_t sizeBytes = 0; ///< memory
};

struct WireHeader {
    int32_t id = 0;
    bool complex = false;
    uint8_t replyArrivesAs = 0; ///< 0: no reply right travels
    uint16_t descriptorCount = 0;
    uint32_t bodyBytes = 0;
};

/// Header and descriptor records; the body and the inline memory are sent from where they are.
std::vector<std::byte> encodeMessageHead(const WireHeader& header, std::span<const WireDescriptor> descriptors);

/// A packet that was found whole: every size adds up, every transmitted descriptor is there and of the right kind.
struct WireMessage {
    WireHeader header;
    std::vector<WireDescriptor> descriptors;
    std::span<const std::byte> body; ///< into the packet
    std::vector<std::span<const std::byte>> inlineMemory; ///< into the packet, by descriptor; empty for other kinds
};

/// Errors: kInvalid with what was wrong, kTooLarge past a limit, kUnsupported for another version.
Result<WireMessage> parseMessage(const Packet& packet);

} // namespace vnt
