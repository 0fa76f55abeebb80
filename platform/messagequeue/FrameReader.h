#pragma once

#include <memory>

#include "platform/messagequeue/frames.h"
#include "platform/messagequeue/sockets.h"

namespace vnt::queue {

/// One received frame. The memory belongs to the reader and lives until its next call.
struct Frame {
    FrameHeader header;
    std::span<std::byte> payload;

    /// The frame as it came, header included; whoever has read `header` may overwrite both.
    [[nodiscard]] std::span<std::byte> whole() const
    {
        return {payload.data() - sizeof(FrameHeader), payload.size() + sizeof(FrameHeader)};
    }
};

/// Cuts the bytes of a stream socket into checked frames. Reads as much as the buffer holds at once; frames are not
/// copied out of it. Single thread; does not own the socket.
class FrameReader {
public:
    /// Holds several 64 KiB messages; a larger frame gets a block of its own while it lasts.
    static constexpr size_t kBufferBytes = size_t{256} << 10;

    FrameReader(int socket, Direction direction);

    /// Hands out the next frame, and waits for it if need be. kPeerGone: the stream ended between two frames, or within
    /// one (the message tells). kInvalid, kTooLarge: the peer broke the protocol; nothing more can be read then.
    Result<Frame> next();
    /// True when next() has a whole frame or an error in hand and will not wait.
    [[nodiscard]] bool hasNext() const;
    /// One read from the socket, of at least a byte: the number of bytes. kPeerGone at the end; kTimedOut with
    /// Blocking::kNo when there is nothing. Only when hasNext() is false. Moves what next() handed out.
    Result<size_t> receive(Blocking blocking);
    /// After next() failed with kPeerGone: the stream ended cleanly, not within a frame.
    [[nodiscard]] bool atFrameEnd() const { return available() == 0; }

private:
    struct Block {
        std::unique_ptr<std::byte[]> bytes; // not cleared: pages are touched when data arrive
        size_t size = 0;
    };
    static Block newBlock(size_t size);

    [[nodiscard]] size_t available() const { return _end - _begin; }
    [[nodiscard]] FrameHeader headerAtBegin() const;
    void makeRoomFor(size_t frameBytes);

    const int _socket;
    const Direction _direction;
    Block _block;
    size_t _begin = 0; // first byte not yet handed out
    size_t _end = 0; // past the last received byte
};

} // namespace vnt::queue
