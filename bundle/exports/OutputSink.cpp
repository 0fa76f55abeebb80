#include "bundle/exports/OutputSink.h"

#include <zlib.h>

#include <array>

#include "platform/base/sys.h"

namespace vnt {

namespace {

constexpr size_t kBufferBytes = size_t{256} << 10;
constexpr int kGzipWindowBits = 15 + 16; // the largest window, and a gzip header (zlib.h)
constexpr int kMemoryLevel = 8; // zlib's default

} // namespace

OutputSink::OutputSink(int fd, Compression compression) : _fd(fd)
{
    _buffer.reserve(kBufferBytes);
    if (compression == Compression::kNone)
        return;
    _zlib = std::make_unique<z_stream>();
    // The header that zlib writes by itself has no time in it.
    if (::deflateInit2(_zlib.get(), Z_DEFAULT_COMPRESSION, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                       Z_DEFAULT_STRATEGY)
        != Z_OK)
        _status = Status(Code::kSystem, "no memory to compress");
}

OutputSink::~OutputSink()
{
    if (_zlib)
        (void)::deflateEnd(_zlib.get()); // complains of what was not finished
}

void OutputSink::write(std::string_view bytes)
{
    _contentBytes += bytes.size();
    while (!bytes.empty()) {
        const std::string_view part = bytes.substr(0, kBufferBytes - _buffer.size());
        _buffer.append(part);
        bytes.remove_prefix(part.size());
        if (_buffer.size() == kBufferBytes)
            flush(false);
    }
}

Status OutputSink::finish()
{
    flush(true);
    return _status;
}

void OutputSink::flush(bool isLast)
{
    if (_status.ok()) {
        if (_zlib)
            deflateAll(isLast);
        else
            writeOut(_buffer);
    }
    _buffer.clear();
}

void OutputSink::deflateAll(bool isLast)
{
    std::array<unsigned char, 64 << 10> out;
    _zlib->next_in = reinterpret_cast<unsigned char*>(_buffer.data());
    _zlib->avail_in = static_cast<unsigned>(_buffer.size());
    do {
        _zlib->next_out = out.data();
        _zlib->avail_out = static_cast<unsigned>(out.size());
        (void)::deflate(_zlib.get(), isLast ? Z_FINISH : Z_NO_FLUSH); // fails only when misused
        writeOut({reinterpret_cast<const char*>(out.data()), out.size() - _zlib->avail_out});
    } while (_zlib->avail_out == 0 && _status.ok());
}

void OutputSink::writeOut(std::string_view bytes)
{
    if (!_status.ok() || bytes.empty())
        return;
    _status = sys::writeFully(_fd, bytes.data(), bytes.size());
    _writtenBytes += _status.ok() ? bytes.size() : 0;
}

} // namespace vnt
