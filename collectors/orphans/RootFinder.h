#pragma once

#include <vector>

#include "collectors/orphans/BlockIndex.h"
#include "collectors/orphans/MemoryImage.h"
#include "collectors/orphans/MemoryMap.h"
#include "collectors/orphans/PausedTarget.h"

namespace vnt::orphans {

/// Where a program keeps the pointers that make its blocks reachable, other than in its blocks.
struct Roots {
    std::vector<Range> ranges; ///< ascending
    /// Data of the C library, in which the allocator keeps its own lists: they point to the headers of free blocks, and
    /// those lie in the last word of the block in front.
    std::vector<Range> allocatorLists;
    std::vector<uint64_t> words; ///< registers
    uint64_t olderBytes = 0; ///< of the allocator's memory outside known blocks, where that is a root
};

struct RootQuestion {
    const std::vector<MapEntry>& maps;
    const std::vector<PausedThread>& threads;
    const BlockIndex& blocks;
    bool is32Bit = false;
    /// There are blocks that are not in `blocks`: what the allocator has outside known ones must not be ignored.
    bool unknownBlocks = false;
    /// A reallocation is in progress: the block it moves to is not in `blocks` yet.
    bool undecided = false;
};

/// Every memory that can hold pointers, without what cannot be a program's own: blocks, what the allocator has around
/// them (free blocks keep their old contents), stacks below their pointers, and the stacks of threads that have ended.
/// Milliseconds; a page that cannot be read is no reason to fail.
[[nodiscard]] Roots findRoots(const RootQuestion& question, MemoryImage& image);

/// For tests: the parts of `maps` that belong to the C library's or another allocator.
[[nodiscard]] std::vector<Range> allocatorMemory(const RootQuestion& question, MemoryImage& image);

} // namespace vnt::orphans
