#pragma once

#include <sys/uio.h>

#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// The socket calls of the message queue. Every send is without SIGPIPE.
namespace vnt::queue {

using Deadline = std::optional<std::chrono::steady_clock::time_point>; ///< none: no limit

enum class Blocking { kNo, kYes };

/// Stream connection to the listener at `path`; kTimedOut when its backlog stays full for `timeout`.
Result<UniqueFd> connectWithin(const std::string& path, std::chrono::milliseconds timeout);

/// Bytes sent of `parts`, at least 1; 0 only with Blocking::kNo, when the buffer is full. kPeerGone: nobody reads.
Result<size_t> sendSome(int socket, std::span<const iovec> parts, Blocking blocking);
/// Sends all of `parts`, which it changes to track what is left. When the deadline passes: kTimedOut, with `*sentBytes`
/// (if given) telling how far it came.
Status sendFully(int socket, std::span<iovec> parts, Deadline deadline = {}, size_t* sentBytes = nullptr);

/// At least 1 byte; 0 at the end of the stream. Blocking::kNo: kTimedOut when there is none now.
Result<size_t> receiveSome(int socket, std::span<std::byte> room, Blocking blocking);

/// Ends both directions: whoever waits on the socket wakes up, here and at the peer.
void shutdownSocket(int socket);
/// True when the peer has closed or shut down; one poll(2).
[[nodiscard]] bool peerHungUp(int socket);

/// Drops the first `count` bytes of `parts`.
std::span<iovec> advance(std::span<iovec> parts, size_t count);
[[nodiscard]] inline iovec part(std::span<const std::byte> bytes)
{
    return {const_cast<std::byte*>(bytes.data()), bytes.size()}; // iovec knows no const; sending does not write
}

} // namespace vnt::queue
