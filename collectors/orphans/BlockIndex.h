#pragma once

#include <cstdint>
#include <vector>

#include "collectors/heap/LiveBlocks.h"
#include "collectors/orphans/MemoryMap.h"
#include "platform/base/Mapping.h"

namespace vnt::orphans {

/// The live blocks in the order of their addresses, and which one an address lies in. Immutable once built: 30 to 60 ns
/// a block to build, 10 to 150 ns a look-up, by how warm it is.
class BlockIndex {
public:
    static constexpr uint32_t kNone = ~0u;

    /// What lies outside `mapped` (ascending) is no block: the target says what it likes. Where two blocks overlap, the
    /// free of the older one was lost: it is left out.
    BlockIndex(std::vector<LiveBlock> blocks, const std::vector<Range>& mapped);

    struct Place {
        uint64_t start = 0;
        uint64_t sizeBytes = 0; ///< at least 1
    };
    [[nodiscard]] uint32_t count() const { return static_cast<uint32_t>(_places.size()); }
    [[nodiscard]] const Place& place(uint32_t block) const { return _places[block]; }
    [[nodiscard]] const LiveBlock& block(uint32_t block) const { return _blocks[_order[block]]; }
    [[nodiscard]] uint64_t totalBytes() const { return _totalBytes; }

    /// The block that holds the byte at `address`, or kNone.
    [[nodiscard]] uint32_t find(uint64_t address) const
    {
        return mayHold(address) ? findFrom(*slotOf(address), address) : kNone;
    }
    /// The first block that ends behind `address`; count() when there is none.
    [[nodiscard]] uint32_t firstEndingBehind(uint64_t address) const;

    // The steps of find(), for whoever looks up many addresses and lets the memory be fetched in between.

    /// False: it lies in no block. The other steps are for addresses that may.
    [[nodiscard]] bool mayHold(uint64_t address) const { return address - _lowest < _span; }
    [[nodiscard]] const uint32_t* slotOf(uint64_t address) const
    {
        const uint32_t* leaf = _leaves[address >> kLeafBits];
        return leaf ? leaf + ((address & (kLeafBytes - 1)) >> kGranuleBits) : &kNoSlot;
    }
    [[nodiscard]] const Place* firstPlace(uint32_t slot) const { return &_places[slot == 0 ? 0 : slot - 1]; }
    [[nodiscard]] uint32_t findFrom(uint32_t slot, uint64_t address) const
    {
        if (slot != 0) {
            uint32_t block = slot - 1;
            while (block + 1 < _places.size() && _places[block + 1].start <= address)
                ++block;
            if (address - _places[block].start < _places[block].sizeBytes)
                return block;
        }
        return _large.empty() ? kNone : findLarge(address);
    }

private:
    static constexpr unsigned kAddressBits = 47; // of user space on x86-64 without five-level paging's hint
    static constexpr unsigned kLeafBits = 32;
    static constexpr unsigned kGranuleBits = 8; // a granule holds 8 of the smallest blocks
    static constexpr uint64_t kLeafBytes = uint64_t{1} << kLeafBits;
    /// Larger blocks are few and are searched for: a terabyte that was only reserved must not cost a table.
    static constexpr uint64_t kLargeBytes = uint64_t{4} << 20;
    static constexpr uint32_t kNoSlot = 0;

    void sort();
    void keepMapped(const std::vector<Range>& mapped);
    void fillLeaves();
    uint32_t* leafOf(uint64_t granule);
    [[nodiscard]] uint32_t findLarge(uint64_t address) const;

    std::vector<LiveBlock> _blocks; ///< as given
    std::vector<uint32_t> _order; ///< by address: index in _blocks
    std::vector<Place> _places; ///< by address
    std::vector<uint32_t*> _leaves; ///< by the upper bits: for each granule 1 + the first block that reaches into it
    std::vector<uint32_t> _large; ///< blocks of at least kLargeBytes; they stand in no leaf
    std::vector<Mapping> _memory; ///< of the leaves; sparse
    uint64_t _lowest = 0;
    uint64_t _span = 0;
    uint64_t _totalBytes = 0;
};

} // namespace vnt::orphans
