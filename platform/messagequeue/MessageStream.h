#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// The archived message stream (`.messagequeue`, and the spool it comes from): a 16-byte file header (magic, u32
/// version, u32 zero), then one frame a message: MessageStreamFrameHeader, payload. Little-endian. A crash can only
/// cost the last, incomplete frame.
inline constexpr char kMessageStreamMagic[8] = {'V', 'N', 'T', 'S', 'T', 'R', 'M', '\n'};
inline constexpr uint32_t kMessageStreamVersion = 1;
/// One data message: ample for a batch of records, small enough to hold a few in flight.
inline constexpr uint32_t kMaxDataMessageBytes = 4u << 20;

/// In front of every frame's payload; in the file little-endian as it stands here.
struct MessageStreamFrameHeader {
    uint32_t payloadBytes = 0;
    uint32_t kind = 0; ///< 0 data, 1 count of dropped messages as u64
    uint32_t checksum = 0; ///< CRC-32C of the eight bytes before it and the payload
    uint32_t reserved = 0; ///< zero
};
static_assert(sizeof(MessageStreamFrameHeader) == 16);
inline constexpr uint32_t kMessageStreamData = 0;
inline constexpr uint32_t kMessageStreamDropped = 1;

/// The 16 bytes that begin a stream.
[[nodiscard]] std::array<std::byte, 16> messageStreamFileHeader();
/// The header of a frame with this payload; costs one pass over it.
[[nodiscard]] MessageStreamFrameHeader messageStreamFrameHeader(std::span<const std::byte> payload,
                                                                uint32_t kind = kMessageStreamData);

/// Reads a stream in order in bounded memory, whatever its size (also in a 32-bit process): through one buffer that
/// holds the largest frame. A file that another process shortens meanwhile counts as truncated. Single thread.
class MessageStreamReader {
public:
    /// Errors: those of open(2); kInvalid when the file does not begin as a stream of a known version does.
    static Result<MessageStreamReader> open(const std::string& path);

    struct Summary {
        uint64_t messages = 0;
        uint64_t dropped = 0; ///< messages the recorder says it lost
        uint64_t damagedFrames = 0; ///< frames skipped because their checksum or kind was wrong
        uint64_t unreadBytes = 0; ///< behind a frame whose length makes no sense, where the reading ended
        bool truncated = false; ///< the file ends within a frame, or cannot be read further
    };
    /// Passes every whole data message to `sink`, oldest first, and reads as far as the file is readable. The span is
    /// valid only during the call. A false answer of `sink` ends the reading. Each call begins at the first message.
    Summary forEach(const std::function<bool(std::span<const std::byte> message)>& sink);

private:
    class Window;
    MessageStreamReader(UniqueFd file, uint64_t sizeBytes) : _file(std::move(file)), _sizeBytes(sizeBytes) { }
    UniqueFd _file;
    uint64_t _sizeBytes;
};

/// CRC-32C (Castagnoli, as in iSCSI) of `bytes`, continuing `previous`, the CRC of what came before. About 20 GB/s
/// where the processor has SSE 4.2 (64 KiB: 3 us), 0.4 GB/s elsewhere.
[[nodiscard]] uint32_t crc32c(std::span<const std::byte> bytes, uint32_t previous = 0);
/// The same without SSE 4.2; for processors without it and for tests.
[[nodiscard]] uint32_t crc32cPortable(std::span<const std::byte> bytes, uint32_t previous = 0);

} // namespace vnt
