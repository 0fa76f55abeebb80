#pragma once

#include <cstdint>
#include <vector>

#include "records/HeapRecords.h"

namespace vnt {

/// One block of a target's heap that is allocated now.
struct LiveBlock {
    uint64_t address = 0;
    uint64_t sizeBytes = 0; ///< as asked for
    uint64_t timeNs = 0; ///< of the allocation, CLOCK_MONOTONIC
    uint32_t stack = 0; ///< of the allocation: a node of HeapStacks; 0: unknown
    heap::Function function = heap::Function::kMalloc;
    bool recorded = false; ///< its allocation stands in the recording
};

/// The blocks of a target's heap that are allocated now, by address. Each has a slot, a small number that is given anew
/// after the block is gone. An operation costs one hash look-up: 20 ns warm, 100 to 200 ns in heaps beyond the
/// processor's caches; a block costs 56 to 72 bytes. One thread.
class LiveBlocks {
public:
    static constexpr uint32_t kNone = ~0u;

    /// The slot of the block at exactly this address, or kNone.
    [[nodiscard]] uint32_t find(uint64_t address) const;
    /// There must be none at its address. kNone when there are heap::kMaxSlots blocks already.
    uint32_t add(const LiveBlock& block);
    void remove(uint32_t slot);

    /// Takes the block out of the search by address, for as long as it may be moving; it keeps its slot.
    void detach(uint32_t slot);
    void attach(uint32_t slot);

    void clear();

    [[nodiscard]] LiveBlock& block(uint32_t slot) { return _blocks[slot]; }
    [[nodiscard]] const LiveBlock& block(uint32_t slot) const { return _blocks[slot]; }
    [[nodiscard]] uint64_t count() const { return _count; }
    [[nodiscard]] uint64_t bytes() const { return _bytes; }

    /// Calls `visit(const LiveBlock&)` for each block, detached ones too, in the order of their slots: a walk through
    /// memory, some 10 ns a block. The set must not change meanwhile.
    template <typename Visit> void forEachSlot(Visit&& visit) const
    {
        for (uint32_t slot = 0; slot < _blocks.size(); ++slot) {
            if (_blocks[slot].address != kGone)
                visit(_blocks[slot]);
        }
    }

    /// Calls `visit(const LiveBlock&)` for each block, in no order. The set must not change meanwhile.
    template <typename Visit> void forEach(Visit&& visit) const
    {
        for (const Entry& entry : _index) {
            if (entry.slot != kNone)
                visit(_blocks[entry.slot]);
        }
    }

private:
    struct Entry {
        uint32_t slot = kNone;
        uint32_t tag = 0; ///< of the address: spares most looks at the block itself
    };
    static constexpr uint64_t kGone = ~uint64_t{0}; ///< address of a slot without a block
    static uint64_t hash(uint64_t address) { return (address >> 4) * 0x9e3779b97f4a7c15U; }
    static uint32_t tagOf(uint64_t address) { return static_cast<uint32_t>(address >> 3); }
    [[nodiscard]] size_t home(uint64_t address) const { return static_cast<size_t>(hash(address) >> _shift); }
    [[nodiscard]] size_t placeOf(uint32_t slot) const;
    void insert(uint32_t slot);
    void grow();

    std::vector<LiveBlock> _blocks;
    std::vector<uint32_t> _free; ///< slots; the last freed is the next given
    std::vector<Entry> _index = std::vector<Entry>(size_t{1} << kFirstBits);
    static constexpr unsigned kFirstBits = 10;
    unsigned _shift = 64 - kFirstBits;
    size_t _indexed = 0;
    uint64_t _count = 0;
    uint64_t _bytes = 0;
};

} // namespace vnt
