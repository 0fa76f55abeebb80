#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/messagequeue/SpoolFile.h"

namespace vnt {

/// Where the data messages of one service wait for their archive: a file that begins at the first message. Any
/// thread; the connection's reader appends, the owner counts, archives and discards.
class Spool {
public:
    explicit Spool(std::string identifier) : _identifier(std::move(identifier)) { }
    ~Spool() { close(); }
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    /// Appends `count` frames of a message stream that lie one behind the other. What the disk does not take is
    /// dropped and counted. The text says why when this call was the first of the stream to drop something, else it is
    /// empty.
    [[nodiscard]] std::string append(std::span<const std::byte> frames, uint64_t count);

    [[nodiscard]] uint64_t messageCount() const;
    /// Since the stream began; an archive does not reset it, discard() does.
    [[nodiscard]] uint64_t droppedCount() const;

    /// Moves or copies the stream to `path` and begins a new one. The number of messages; when it fails, the stream is
    /// kept: as the current one if nothing came meanwhile, else as a file that recoverableSpools() lists.
    Result<uint64_t> archiveTo(const std::string& path);
    /// Removes the file; later messages begin a new stream.
    void discard();
    /// Removes the file; later messages are ignored.
    void close();

private:
    struct Stream {
        std::optional<SpoolFile> file;
        uint64_t messages = 0;
        uint64_t unrecordedDrops = 0; // not yet in the stream as a frame; the file's loss mark has them
    };
    void drop(uint64_t count) VNT_REQUIRES(_lock);
    Status ensureFile() VNT_REQUIRES(_lock);

    const std::string _identifier;
    mutable Mutex _lock;
    Stream _stream VNT_GUARDED_BY(_lock);
    uint64_t _dropped VNT_GUARDED_BY(_lock) = 0;
    bool _closed VNT_GUARDED_BY(_lock) = false;
};

/// A spool whose process is gone: a recording that crashed.
struct RecoverableSpool {
    std::string path; ///< readable by MessageStreamReader
    int32_t pid = 0; ///< of the process that recorded
    std::string identifier; ///< of the service, with unusual characters replaced by '_'
    uint64_t sizeBytes = 0;
};
/// Every spool of this user that no process holds. An unreadable directory gives none.
[[nodiscard]] std::vector<RecoverableSpool> recoverableSpools();

} // namespace vnt
