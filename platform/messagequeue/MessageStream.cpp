#include "platform/messagequeue/MessageStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>

#include "platform/base/ByteCursor.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kFileHeaderBytes = 16;
/// The largest frame fits, and small ones come a megabyte and more at a time.
constexpr size_t kWindowBytes = kMaxDataMessageBytes + sizeof(MessageStreamFrameHeader);
/// How much is read ahead when the frame at hand needs less: stays in the processor's cache until it is passed on.
constexpr size_t kReadAheadBytes = size_t{512} << 10;

Result<size_t> readAt(int fd, std::byte* data, size_t size, uint64_t offset)
{
    for (;;) {
        const ssize_t count = ::pread(fd, data, size, static_cast<off_t>(offset));
        if (count >= 0)
            return static_cast<size_t>(count);
        if (errno != EINTR)
            return Status::fromErrno(errno, "pread");
    }
}

bool saneLength(const MessageStreamFrameHeader& header)
{
    if (header.kind == kMessageStreamDropped)
        return header.payloadBytes == sizeof(uint64_t);
    // All zeros is what a crash of the machine leaves; the checksum of a header without a payload is not zero.
    return header.payloadBytes <= kMaxDataMessageBytes && (header.payloadBytes != 0 || header.checksum != 0);
}

} // namespace

std::array<std::byte, 16> messageStreamFileHeader()
{
    std::array<std::byte, kFileHeaderBytes> header{}; // the last four bytes are reserved, zero
    std::memcpy(header.data(), kMessageStreamMagic, sizeof kMessageStreamMagic);
    std::memcpy(header.data() + sizeof kMessageStreamMagic, &kMessageStreamVersion, sizeof kMessageStreamVersion);
    return header;
}

MessageStreamFrameHeader messageStreamFrameHeader(std::span<const std::byte> payload, uint32_t kind)
{
    MessageStreamFrameHeader header{.payloadBytes = static_cast<uint32_t>(payload.size()), .kind = kind};
    const auto checked = std::as_bytes(std::span(&header, 1)).first(offsetof(MessageStreamFrameHeader, checksum));
    header.checksum = crc32c(payload, crc32c(checked));
    return header;
}

/// The part of the file at hand, moving forward.
class MessageStreamReader::Window {
public:
    Window(int fd, uint64_t sizeBytes)
        : _fd(fd),
          _sizeBytes(sizeBytes),
          _block(std::make_unique_for_overwrite<std::byte[]>(kWindowBytes))
    {
    }

    [[nodiscard]] uint64_t remaining() const { return _sizeBytes - _offset; }
    void skip(size_t count) { _offset += count; }

    /// The next `count` bytes, at most a window; none when the file does not have them.
    std::optional<std::span<const std::byte>> peek(size_t count)
    {
        if (count > remaining())
            return std::nullopt;
        if (_offset + count > _blockOffset + _filled && !refill(count))
            return std::nullopt;
        return std::span<const std::byte>(_block.get() + (_offset - _blockOffset), count);
    }

private:
    bool refill(size_t count)
    {
        const size_t kept =
            static_cast<size_t>(_blockOffset + _filled > _offset ? _blockOffset + _filled - _offset : 0);
        std::memmove(_block.get(), _block.get() + (_filled - kept), kept);
        _blockOffset = _offset;
        _filled = kept;
        const size_t wanted = std::min(kWindowBytes, std::max(count, kReadAheadBytes));
        while (_filled < count) {
            const auto got = readAt(_fd, _block.get() + _filled, wanted - _filled, _blockOffset + _filled);
            if (!got.ok() || got.value() == 0)
                return false;
            _filled += got.value();
        }
        return true;
    }

    const int _fd;
    const uint64_t _sizeBytes;
    const std::unique_ptr<std::byte[]> _block;
    uint64_t _blockOffset = 0; // of the block's first byte in the file
    size_t _filled = 0;
    uint64_t _offset = kFileHeaderBytes;
};

Result<MessageStreamReader> MessageStreamReader::open(const std::string& path)
{
    // O_NONBLOCK: a FIFO in the file's place must not hang us.
    ASSIGN_OR_RETURN(UniqueFd file, sys::openFile(path, O_RDONLY | O_NONBLOCK));
    ASSIGN_OR_RETURN(const struct stat info, sys::statFd(file.get()));
    if (!S_ISREG(info.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    std::byte bytes[kFileHeaderBytes];
    ASSIGN_OR_RETURN(const size_t count, readAt(file.get(), bytes, sizeof bytes, 0));
    ByteCursor cursor({bytes, count});
    const auto magic = cursor.bytes(sizeof kMessageStreamMagic, sizeof kMessageStreamMagic);
    if (cursor.failed() || std::memcmp(magic.data(), kMessageStreamMagic, sizeof kMessageStreamMagic) != 0)
        return Status(Code::kInvalid, path + ": not a message stream");
    const auto version = cursor.little<uint32_t>();
    (void)cursor.little<uint32_t>(); // reserved
    if (cursor.failed() || version != kMessageStreamVersion)
        return Status(Code::kInvalid, path + ": message stream of version " + std::to_string(version));
    (void)::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL); // only a hint
    return MessageStreamReader(std::move(file), static_cast<uint64_t>(info.st_size));
}

MessageStreamReader::Summary
MessageStreamReader::forEach(const std::function<bool(std::span<const std::byte> message)>& sink)
{
    Summary summary;
    Window window(_file.get(), _sizeBytes);
    while (window.remaining() > 0) {
        const auto raw = window.peek(sizeof(MessageStreamFrameHeader));
        MessageStreamFrameHeader header;
        if (raw)
            std::memcpy(&header, raw->data(), sizeof header);
        if (raw && !saneLength(header)) {
            ++summary.damagedFrames;
            summary.unreadBytes = window.remaining();
            break;
        }
        const auto frame = raw ? window.peek(sizeof header + header.payloadBytes) : std::nullopt;
        if (!frame) {
            summary.truncated = true;
            break;
        }
        window.skip(frame->size());
        const auto payload = frame->subspan(sizeof header);
        if (header.kind > kMessageStreamDropped || header.reserved != 0
            || messageStreamFrameHeader(payload, header.kind).checksum != header.checksum) {
            ++summary.damagedFrames;
        } else if (header.kind == kMessageStreamDropped) {
            summary.dropped += ByteCursor(payload).little<uint64_t>();
        } else {
            ++summary.messages;
            if (!sink(payload))
                break;
        }
    }
    return summary;
}

} // namespace vnt
