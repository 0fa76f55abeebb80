#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Status.h"

struct z_stream_s; // zlib.h

namespace vnt {

enum class Compression { kNone, kGzip };

/// Where an export is written: buffers, compresses when asked to, and remembers the first failure, after which nothing
/// more is written, so that writers need not look at each call. The descriptor is borrowed. One thread.
class OutputSink {
public:
    OutputSink(int fd, Compression compression);
    ~OutputSink();
    OutputSink(const OutputSink&) = delete;
    OutputSink& operator=(const OutputSink&) = delete;

    void write(std::string_view bytes);
    /// Writes what is still held here; nothing may be written afterwards. The first failure of all.
    Status finish();
    [[nodiscard]] bool hasFailed() const { return !_status.ok(); }
    /// Bytes given to write(), that is, before compression.
    [[nodiscard]] uint64_t contentBytes() const { return _contentBytes; }
    /// Bytes that reached the descriptor.
    [[nodiscard]] uint64_t writtenBytes() const { return _writtenBytes; }

private:
    void flush(bool isLast);
    void deflateAll(bool isLast);
    void writeOut(std::string_view bytes);

    int _fd;
    std::string _buffer;
    std::unique_ptr<z_stream_s> _zlib; ///< null: not compressed
    Status _status;
    uint64_t _contentBytes = 0;
    uint64_t _writtenBytes = 0;
};

} // namespace vnt
