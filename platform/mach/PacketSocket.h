#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// Packets with descriptors over SOCK_SEQPACKET sockets. No call depends on O_NONBLOCK: that flag belongs to the open
/// file, which a hostile holder of the same right may change at any time.
namespace vnt {

using Deadline = std::optional<std::chrono::steady_clock::time_point>; ///< none: without limit
[[nodiscard]] std::chrono::milliseconds timeLeft(const Deadline& deadline);

/// Descriptors of one packet; the kernel allows 253 (SCM_MAX_FD, unix(7)).
inline constexpr size_t kMaxPacketDescriptors = 65;
/// Largest packet: 64 KiB of message, 128 KiB of inline memory and their headers. The default socket buffer of
/// 212,992 bytes passes it.
inline constexpr size_t kMaxPacketBytes = (64 + 128 + 4) * 1024;

struct Packet {
    std::vector<std::byte> bytes;
    std::vector<UniqueFd> descriptors; ///< sockets and memory files only
};

enum class ReceiveOutcome {
    kPacket,
    kNothing, ///< no packet is waiting
    kClosed, ///< the other end is gone (or sent an empty packet, which looks the same)
    kRejected, ///< the packet was taken and destroyed: too large, or its descriptors were lost or of a wrong kind
};

/// Takes the next packet without waiting. Two system calls: one asks for the size, one reads.
ReceiveOutcome tryReceivePacket(int socket, size_t limitBytes, Packet& packet);

/// Sends one packet without waiting: 0, or the errno value (EAGAIN: the receiver's queue is full; EPIPE or
/// ECONNRESET: the receiver is gone; EMSGSIZE: larger than the socket buffer). Never raises SIGPIPE.
int trySendPacket(int socket, std::span<const iovec> parts, std::span<const int> descriptors);

/// Sends one packet and waits for room. kTimedOut, kPeerGone, kTooLarge (EMSGSIZE), kSystem.
Status sendPacket(int socket, std::span<const iovec> parts, std::span<const int> descriptors, const Deadline& deadline);

/// True for a connected AF_UNIX SOCK_SEQPACKET socket: the only thing that can be a port right.
[[nodiscard]] bool isPortSocket(int fd);
/// True when the other end is closed.
[[nodiscard]] bool isHungUp(int socket);
/// SO_COOKIE (socket(7)): equal for every duplicate of one socket in any process.
Result<uint64_t> socketCookie(int socket);

} // namespace vnt
