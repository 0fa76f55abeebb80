#pragma once

#include <vector>

#include "collectors/orphans/BlockIndex.h"
#include "collectors/orphans/MemoryImage.h"
#include "records/OrphanRecords.h"

namespace vnt::orphans {

/// A block that nothing reaches, and how it is lost.
struct Leak {
    uint32_t block = 0; ///< of the BlockIndex
    Kind kind = Kind::kDirect;
    uint32_t holder = 0; ///< 1 + the place in the list of a leak that points to it, which stands before it; 0: none
};

/// Orders leaks so that holders come before what they hold. Direct ones are pointed to by no other leaked block. A
/// cycle is a set of blocks that all hold one another and that no leaked block outside points to; the one allocated
/// first stands for it and has no holder. A block that points to itself only is no cycle: objects often do, to their
/// own parts. Time and memory grow with the leaks and the pointers among them.
/// `leaked`: ascending.
[[nodiscard]] std::vector<Leak> arrangeLeaks(const std::vector<uint32_t>& leaked, const BlockIndex& blocks,
                                             MemoryImage& image, unsigned widthBytes);

} // namespace vnt::orphans
