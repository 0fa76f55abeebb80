#include "platform/messagequeue/FrameReader.h"

#include <cstring>

namespace vnt::queue {
namespace {

/// Moving fewer bytes to the front costs less than what a short read for want of room would.
constexpr size_t kCheapMoveBytes = 4096;

} // namespace

FrameReader::FrameReader(int socket, Direction direction)
    : _socket(socket),
      _direction(direction),
      _block(newBlock(kBufferBytes))
{
}

FrameReader::Block FrameReader::newBlock(size_t size)
{
    return {std::make_unique_for_overwrite<std::byte[]>(size), size};
}

FrameHeader FrameReader::headerAtBegin() const
{
    FrameHeader header;
    std::memcpy(&header, _block.bytes.get() + _begin, sizeof header);
    return header;
}

bool FrameReader::hasNext() const
{
    if (available() < sizeof(FrameHeader))
        return false;
    const FrameHeader header = headerAtBegin();
    return !checkHeader(header, _direction).ok() || available() >= sizeof header + header.payloadBytes;
}

Result<Frame> FrameReader::next()
{
    while (!hasNext()) {
        const auto received = receive(Blocking::kYes);
        RETURN_IF_ERROR(received.status());
    }
    const FrameHeader header = headerAtBegin();
    RETURN_IF_ERROR(checkHeader(header, _direction));
    std::byte* payload = _block.bytes.get() + _begin + sizeof header;
    _begin += sizeof header + header.payloadBytes;
    return Frame{header, {payload, header.payloadBytes}};
}

Result<size_t> FrameReader::receive(Blocking blocking)
{
    // hasNext() was false: a header that is there has been checked, and its sum stays below 2^27.
    makeRoomFor(available() < sizeof(FrameHeader) ? sizeof(FrameHeader)
                                                  : sizeof(FrameHeader) + headerAtBegin().payloadBytes);
    ASSIGN_OR_RETURN(const size_t count,
                     receiveSome(_socket, {_block.bytes.get() + _end, _block.size - _end}, blocking));
    if (count == 0)
        return Status(Code::kPeerGone,
                      available() == 0 ? "the connection was closed" : "the connection ended within a message");
    _end += count;
    return count;
}

/// Afterwards a frame that begins at _begin fits into the block, and some of it is still missing.
void FrameReader::makeRoomFor(size_t frameBytes)
{
    const size_t wanted = std::max(frameBytes, kBufferBytes);
    const bool oversized = _block.size > wanted; // left from a large frame: given back
    if (frameBytes > _block.size || (oversized && available() <= wanted)) {
        Block block = newBlock(wanted);
        std::memcpy(block.bytes.get(), _block.bytes.get() + _begin, available());
        _block = std::move(block);
    } else if (_begin > 0 && (available() < kCheapMoveBytes || _block.size - _begin < frameBytes)) {
        std::memmove(_block.bytes.get(), _block.bytes.get() + _begin, available());
    } else {
        return;
    }
    _end -= _begin;
    _begin = 0;
}

} // namespace vnt::queue
