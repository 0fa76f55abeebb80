#pragma once

#include <memory>
#include <span>
#include <thread>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/base/UniqueFd.h"
#include "platform/messagequeue/frames.h"

namespace vnt::queue {

/// Everything the server sends on one connection, in the order it was handed over. While nothing waits, a frame goes
/// straight from its sender to the socket in one call, uncopied; what the socket does not take is copied to a bounded
/// buffer, which a writer thread empties. Any thread.
class ServerOutput final : public RefCounted {
public:
    /// Data waits here when the client reads too slowly: a second or two of a busy recording.
    static constexpr size_t kBufferBytes = size_t{8} << 20;
    /// Room beyond it that only replies, callbacks and exceptions may use, so that a flood of data does not hold them
    /// up.
    static constexpr size_t kReservedBytes = size_t{1} << 20;

    [[nodiscard]] static Ref<ServerOutput> create(UniqueFd socket);

    /// Queues a frame if there is room now; kTimedOut if not. Never waits.
    Status trySend(FrameHeader header, std::span<const std::byte> payload);
    /// Waits for room until the peer is gone. `header.payloadBytes` is filled in here.
    Status send(FrameHeader header, std::span<const std::byte> payload);

    /// The socket, for reading; valid until close().
    [[nodiscard]] int socket() const { return _socket.get(); }
    /// Wakes everyone who waits on the connection, in both directions.
    void shutdown();
    /// True once a send failed, the peer hung up, or the connection was shut down here.
    [[nodiscard]] bool peerGone() const;
    /// Ends the sending: drops what waits, ends the writer thread, closes the socket. Later sends answer kPeerGone. By
    /// the connection's thread, which also reads.
    void close();

private:
    VNT_MAKE_REF_FRIEND;
    explicit ServerOutput(UniqueFd socket) : _socket(std::move(socket)) { }
    ~ServerOutput() override { close(); }

    [[nodiscard]] bool idle() const VNT_REQUIRES(_lock) { return !_busy && _queued.empty(); }
    [[nodiscard]] bool hasRoom(size_t bytes, size_t limit) const VNT_REQUIRES(_lock);
    Status sendWhileIdle(const FrameHeader& header, std::span<const std::byte> payload) VNT_REQUIRES(_lock);
    Status sendDirectly(MutexLock& lock, const FrameHeader& header, std::span<const std::byte> payload);
    void enqueue(std::span<const std::byte> bytes) VNT_REQUIRES(_lock);
    void fail() VNT_REQUIRES(_lock);
    void wakeWriter() VNT_REQUIRES(_lock);
    void writeQueued();
    bool writeAll(MutexLock& lock);

    UniqueFd _socket;
    mutable Mutex _lock;
    Condition _work; // for the writer, or the end; apart from _room, or each message sent would wake the writer
    Condition _room; // room, idleness, the end
    bool _busy VNT_GUARDED_BY(_lock) = false; // somebody sends without the lock: all others queue
    bool _gone VNT_GUARDED_BY(_lock) = false;
    std::vector<std::byte> _queued VNT_GUARDED_BY(_lock);
    std::vector<std::byte> _writing; // the writer's own; swapped with _queued, so that both stay warm
    size_t _unwrittenBytes VNT_GUARDED_BY(_lock) = 0; // of _writing
    std::thread _writer;
};

} // namespace vnt::queue
