#pragma once

#include <memory>
#include <span>
#include <vector>

#include "records/HeapRecordReader.h"
#include "rumbel/view/CallTree.h"
#include "rumbel/view/LevelCurve.h"
#include "rumbel/view/PageFunctions.h"
#include "rumbel/view/TimeGrid.h"

namespace vnt::view {

/// What a heap did when: live bytes over time, and for each allocating call path how much was allocated, freed and
/// left in each slice of time. Some 40 ns an event; memory grows with the blocks alive at a time and the call paths.
/// Damage is HeapProfileBuilder's to tell, which reads the same messages. One thread.
class HeapHistory final : private heap::HeapRecordHandler {
public:
    // What the grid sums up. What is left counts at the time of its allocation.
    enum Value : size_t { kAllocations, kAllocatedBytes, kFrees, kFreedBytes, kLeft, kLeftBytes, kValueCount };
    using Grid = TimeGrid<kValueCount>;

    /// `symbols` outlives it.
    HeapHistory(uint64_t originNs, PageSymbols& symbols) : _symbols(symbols), _grid(originNs), _curve(originNs) { }
    void add(std::span<const std::byte> message) { (void)_reader.read(message, *this); }
    /// Ends the reading.
    void finish();

    Grid& grid() { return _grid; } ///< its nodes are tree()'s
    [[nodiscard]] const CallTree& tree() const { return _tree; }
    [[nodiscard]] const LevelCurve& curve() const { return _curve; }

private:
    struct Block {
        uint64_t sizeBytes = 0;
        uint64_t timeNs = 0;
        uint32_t node = 0;
        bool live = false;
    };
    // Grown by pieces: what one record names costs a piece at most.
    static constexpr size_t kBlocksPerPiece = 4096;

    void onAllocate(const heap::AllocateRecord& allocation) override;
    void onFree(uint64_t timeNs, heap::Function /*function*/, uint32_t slot) override { release(timeNs, slot); }
    void onFreedOutside(uint64_t timeNs, uint32_t slot) override { release(timeNs, slot); }
    void onTarget(uint64_t timeNs, const heap::TargetRecord& target) override;

    void release(uint64_t timeNs, uint32_t slot);
    void release(uint64_t timeNs, Block& block);
    uint32_t nodeOf(uint32_t stack, uint64_t timeNs);

    static constexpr uint32_t kUnknown = ~0u;
    PageSymbols& _symbols;
    CallTree _tree;
    heap::HeapRecordReader _reader;
    Grid _grid;
    LevelCurve _curve;
    std::vector<std::unique_ptr<Block[]>> _blocks; ///< by slot
    std::vector<uint32_t> _nodes; ///< by stack number
    std::vector<uint32_t> _path; ///< functions of one stack; kept for its memory
    uint64_t _liveBytes = 0;
    uint32_t _pid = 0;
};

} // namespace vnt::view
