#pragma once

#include <sys/types.h>

#include <span>
#include <vector>

#include "collectors/orphans/MemoryMap.h"
#include "platform/base/Mapping.h"
#include "platform/base/UniqueFd.h"

namespace vnt::orphans {

/// What stood in a target's memory while it stood still: a copy, or where that would be too large, a window on the
/// memory itself for as long as the target stands. Pages that the target never touched are not touched either: they are
/// zeros. Filled on one thread; view() may then be called by one thread.
class MemoryImage {
public:
    /// Room for a copy, made ready while the target still runs: a fresh page costs more than what is copied into it.
    void prepare(uint64_t expectedBytes);

    /// Reads `ranges` (ascending) of `pid`, which stands still: copies them when they have at most `limitBytes` of
    /// present pages, by two threads, 4 to 10 GB/s. Errors: kNotFound when the process has ended, kDenied.
    Status capture(pid_t pid, const std::vector<Range>& ranges, uint64_t limitBytes);

    /// The bytes from `address` on: as many as lie together, at most `sizeBytes` and kWindowBytes; empty where there is
    /// nothing but zeros for that long. `skipped` receives the zeros in front of them. Valid until the next call.
    std::span<const std::byte> view(uint64_t address, uint64_t sizeBytes, uint64_t& skipped);
    static constexpr uint64_t kWindowBytes = 1u << 20;

    /// A word of the target; 0 where there is none.
    [[nodiscard]] uint64_t word(uint64_t address, unsigned widthBytes);

    /// Where view() would look is fetched into the processor's cache.
    void prefetch(uint64_t address) const
    {
        if (!_copied)
            return;
        const Piece* piece = pieceAt(address);
        if (piece && piece->range.contains(address))
            __builtin_prefetch(static_cast<const std::byte*>(_copy.address()) + piece->offset
                               + (address - piece->range.start));
    }

    [[nodiscard]] bool isCopy() const { return _copied; }
    [[nodiscard]] uint64_t presentBytes() const { return _presentBytes; }
    /// That should be there and could not be read.
    [[nodiscard]] uint64_t unreadableBytes() const { return _unreadableBytes; }

private:
    struct Piece {
        Range range; ///< of pages that are there
        uint64_t offset = 0; ///< in the copy
    };
    Status findPieces(pid_t pid, const std::vector<Range>& ranges);
    void addPresentPages(int pageMap, const Range& range);
    void addPiece(const Range& range);
    void copyAll();
    [[nodiscard]] const Piece* pieceAt(uint64_t address) const;

    std::vector<Piece> _pieces;
    Mapping _copy;
    uint64_t _presentBytes = 0;
    uint64_t _unreadableBytes = 0;
    bool _copied = false;
    mutable size_t _lastPiece = 0;
    pid_t _pid = 0;
    UniqueFd _memory; ///< /proc/PID/mem: for pages that process_vm_readv(2) refuses
    std::vector<std::byte> _window;
    std::vector<uint64_t> _pageBits;
};

} // namespace vnt::orphans
