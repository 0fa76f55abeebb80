#include "collectors/orphans/MemoryImage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/base/sys.h"

namespace vnt::orphans {
namespace {

constexpr uint64_t kPageBytes = 4096;
constexpr uint64_t kLargePageBytes = 2u << 20;
constexpr uint64_t kChunkBytes = 1u << 20; // read at a time: more gains nothing
constexpr uint64_t kPresentOrSwapped = uint64_t{3} << 62; // /proc/PID/pagemap, Documentation/admin-guide/mm/pagemap.rst
/// Asking about the pages of a smaller piece costs more than copying it.
constexpr uint64_t kAskedBytes = 64 * kPageBytes;
constexpr size_t kPagesPerLook = 4096;
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 // Linux 5.14
#endif

/// Copies what can be read; the rest stays zero. The bytes that could not be.
uint64_t readTarget(pid_t pid, int memory, uint64_t address, std::byte* to, uint64_t sizeBytes)
{
    uint64_t unreadable = 0;
    for (uint64_t done = 0; done < sizeBytes;) {
        iovec local{to + done, sizeBytes - done};
        iovec remote{reinterpret_cast<void*>(static_cast<uintptr_t>(address + done)), sizeBytes - done};
        const ssize_t read = ::process_vm_readv(pid, &local, 1, &remote, 1, 0);
        if (read > 0) {
            done += static_cast<uint64_t>(read);
            continue;
        }
        // A page without read permission, or none at all.
        const uint64_t rest = std::min(sizeBytes - done, kPageBytes - (address + done) % kPageBytes);
        const ssize_t page = ::pread(memory, to + done, rest, static_cast<off_t>(address + done));
        if (page < static_cast<ssize_t>(rest))
            unreadable += rest;
        done += rest;
    }
    return unreadable;
}

} // namespace

void MemoryImage::prepare(uint64_t expectedBytes)
{
    auto mapping =
        Mapping::create(expectedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (!mapping.ok())
        return; // capture() tries again, and says so
    _copy = mapping.take();
    // Large pages make it ten times cheaper; without either it only takes longer.
    (void)::madvise(_copy.address(), _copy.size(), MADV_HUGEPAGE);
    auto* first = static_cast<std::byte*>(_copy.address());
    const size_t half = _copy.size() / 2 / kLargePageBytes * kLargePageBytes;
    const sys::SignalBlock block;
    std::thread second([&] { (void)::madvise(first + half, _copy.size() - half, MADV_POPULATE_WRITE); });
    (void)::madvise(first, half, MADV_POPULATE_WRITE);
    second.join();
}

void MemoryImage::addPiece(const Range& range)
{
    if (!_pieces.empty() && _pieces.back().range.end == range.start)
        _pieces.back().range.end = range.end;
    else
        _pieces.push_back({range, _presentBytes});
    _presentBytes += range.sizeBytes();
}

void MemoryImage::addPresentPages(int pageMap, const Range& range)
{
    _pageBits.resize(kPagesPerLook);
    for (uint64_t at = range.start; at < range.end;) {
        const uint64_t pages = std::min<uint64_t>((range.end - at) / kPageBytes, kPagesPerLook);
        const auto bytes = static_cast<ssize_t>(pages * sizeof(uint64_t));
        if (::pread(pageMap, _pageBits.data(), static_cast<size_t>(bytes),
                    static_cast<off_t>(at / kPageBytes * sizeof(uint64_t)))
            != bytes)
            std::fill(_pageBits.begin(), _pageBits.end(), kPresentOrSwapped); // then reading them tells
        for (uint64_t i = 0; i < pages;) {
            uint64_t end = i;
            while (end < pages && (_pageBits[end] & kPresentOrSwapped) != 0)
                ++end;
            if (end != i)
                addPiece({at + i * kPageBytes, at + end * kPageBytes});
            i = end + 1;
        }
        at += pages * kPageBytes;
    }
}

Status MemoryImage::findPieces(pid_t pid, const std::vector<Range>& ranges)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    ASSIGN_OR_RETURN(_memory, sys::openFile(directory + "/mem", O_RDONLY));
    ASSIGN_OR_RETURN(const UniqueFd pageMap, sys::openFile(directory + "/pagemap", O_RDONLY));
    for (const Range& range : ranges) {
        if (range.sizeBytes() <= kAskedBytes)
            addPiece(range);
        else
            addPresentPages(pageMap.get(), range);
    }
    return {};
}

Status MemoryImage::capture(pid_t pid, const std::vector<Range>& ranges, uint64_t limitBytes)
{
    _pid = pid;
    RETURN_IF_ERROR(findPieces(pid, ranges));
    _copied = _presentBytes <= limitBytes;
    if (_copied && _presentBytes > _copy.size()) {
        auto mapping =
            Mapping::create(_presentBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        _copied = mapping.ok();
        if (_copied) {
            _copy = mapping.take();
            (void)::madvise(_copy.address(), _copy.size(), MADV_HUGEPAGE);
        }
    }
    if (_copied)
        copyAll();
    else
        _copy = Mapping();
    return {};
}

/// Two threads, each with the next chunk: while the target stands still, its processor is free for the second.
void MemoryImage::copyAll()
{
    struct Chunk {
        uint64_t address;
        uint64_t offset;
        uint64_t sizeBytes;
    };
    std::vector<Chunk> chunks;
    for (const Piece& piece : _pieces) {
        for (uint64_t at = 0; at < piece.range.sizeBytes(); at += kChunkBytes)
            chunks.push_back(
                {piece.range.start + at, piece.offset + at, std::min(kChunkBytes, piece.range.sizeBytes() - at)});
    }
    std::atomic<size_t> next{0};
    std::atomic<uint64_t> unreadable{0};
    auto* to = static_cast<std::byte*>(_copy.address());
    const auto copy = [&] {
        for (size_t i = next.fetch_add(1); i < chunks.size(); i = next.fetch_add(1))
            unreadable.fetch_add(
                readTarget(_pid, _memory.get(), chunks[i].address, to + chunks[i].offset, chunks[i].sizeBytes));
    };
    if (std::thread::hardware_concurrency() > 1 && _presentBytes > 16 * kChunkBytes) {
        const sys::SignalBlock block;
        std::thread second(copy);
        copy();
        second.join();
    } else {
        copy();
    }
    _unreadableBytes = unreadable.load();
}

/// The piece that holds `address`, or the first behind it; null when there is none.
const MemoryImage::Piece* MemoryImage::pieceAt(uint64_t address) const
{
    if (_lastPiece < _pieces.size() && _pieces[_lastPiece].range.contains(address))
        return &_pieces[_lastPiece];
    const auto found = std::upper_bound(_pieces.begin(), _pieces.end(), address,
                                        [](uint64_t value, const Piece& piece) { return value < piece.range.end; });
    if (found == _pieces.end())
        return nullptr;
    _lastPiece = static_cast<size_t>(found - _pieces.begin());
    return &*found;
}

std::span<const std::byte> MemoryImage::view(uint64_t address, uint64_t sizeBytes, uint64_t& skipped)
{
    skipped = 0;
    const Piece* piece = pieceAt(address);
    if (!piece || (piece->range.start > address && piece->range.start - address >= sizeBytes))
        return {};
    if (piece->range.start > address) {
        skipped = piece->range.start - address;
        address = piece->range.start;
        sizeBytes -= skipped;
    }
    const uint64_t size = std::min({sizeBytes, kWindowBytes, piece->range.end - address});
    if (_copied)
        return _copy.bytes().subspan(piece->offset + (address - piece->range.start), size);
    _window.resize(kWindowBytes);
    std::memset(_window.data(), 0, size);
    _unreadableBytes += readTarget(_pid, _memory.get(), address, _window.data(), size);
    return std::span(_window).first(size);
}

uint64_t MemoryImage::word(uint64_t address, unsigned widthBytes)
{
    uint64_t skipped = 0;
    const auto bytes = view(address, widthBytes, skipped);
    uint64_t value = 0;
    if (skipped == 0 && bytes.size() == widthBytes)
        std::memcpy(&value, bytes.data(), widthBytes);
    return value;
}

} // namespace vnt::orphans
