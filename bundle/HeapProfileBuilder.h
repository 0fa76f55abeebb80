#pragma once

#include <memory>
#include <span>
#include <vector>

#include "bundle/HeapProfile.h"
#include "records/HeapRecordReader.h"

namespace vnt {

/// Adds up heap records, message by message, and names the sites at the end. One thread.
class HeapProfileBuilder final : private heap::HeapRecordHandler {
public:
    /// Both references outlive this.
    HeapProfileBuilder(Symbolizer& symbolizer, Remarks& remarks, const ReadingOptions& options = {})
        : _symbolizer(symbolizer),
          _remarks(remarks),
          _options(options)
    {
    }

    void add(std::span<const std::byte> message);
    /// Nothing may be added afterwards.
    void finish(HeapProfile& profile);

private:
    struct Block {
        uint64_t address = 0;
        uint64_t sizeBytes = 0;
        uint32_t stack = 0;
        bool live = false;
    };
    struct StackCounts {
        HeapCounts counts;
        uint64_t firstTimeNs = 0;
        uint32_t pid = 0;
    };
    // Tables grow by pieces: what one record names costs a piece at most.
    static constexpr size_t kBlocksPerPiece = 4096;
    // Writers give out slots densely, so a piece stands for some 20 KiB of messages, save after losses.
    static constexpr size_t kFreePieces = 1024;
    static constexpr size_t kBytesPerPiece = 4096;

    void onSession(const heap::SessionRecord& session) override { _totals.eventsMask = session.eventsMask; }
    void onAllocate(const heap::AllocateRecord& allocation) override;
    void onFree(uint64_t timeNs, heap::Function function, uint32_t slot) override;
    void onFreeUnknown(uint64_t timeNs, heap::Function function, uint64_t address) override;
    void onFreedOutside(uint64_t timeNs, uint32_t slot) override;
    void onTarget(uint64_t timeNs, const heap::TargetRecord& target) override;
    void onNoTarget(uint64_t timeNs) override;
    void onExit(uint64_t timeNs, uint32_t pid) override;
    void onLost(uint64_t timeNs, heap::LostCause cause, uint64_t newly, uint64_t total) override;
    void onFault(uint64_t timeNs, const heap::FaultRecord& fault) override;
    void onCount(uint64_t timeNs, const heap::CountRecord& count) override;
    void onClassLook(uint64_t timeNs, uint64_t blocks, uint64_t bytes) override;
    void onClass(uint64_t timeNs, const heap::ClassRecord& record) override;
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t events) override;
    void onMissingMessages(uint64_t count) override;

    Block* block(uint32_t slot); ///< null: a forged number
    Block* knownBlock(uint32_t slot);
    StackCounts& countsOf(uint32_t stack);
    void release(Block& block);
    void noteTime(uint64_t timeNs);
    std::vector<uint32_t> pathOf(uint32_t stack, uint32_t pid, uint64_t timeNs);
    [[nodiscard]] HeapClasses namedClasses();
    HeapSite& siteOf(uint32_t stack, std::vector<HeapSite>& sites);

    Symbolizer& _symbolizer;
    Remarks& _remarks;
    const ReadingOptions _options;
    heap::HeapRecordReader _reader;
    HeapTotals _totals;
    std::vector<std::unique_ptr<Block[]>> _blocks; ///< by slot
    size_t _pieces = 0; ///< of them that exist
    uint64_t _bytesRead = 0;
    std::vector<StackCounts> _stacks; ///< by stack number
    struct SeenFault {
        heap::FaultRecord record;
        uint64_t timeNs = 0;
        uint32_t pid = 0;
    };
    std::vector<SeenFault> _faults;
    ReferenceCountBuilder _counts;
    struct ClassLook {
        bool wanted = false; ///< of the span
        uint64_t timeNs = 0;
        uint64_t blocks = 0;
        uint64_t bytes = 0;
        std::vector<heap::ClassRecord> classes;
        static constexpr size_t kMaxClasses = 1u << 17; ///< twice what the recorder tells
    };
    ClassLook _look;
    std::vector<uint64_t> _siteBytes; ///< of a site's heaviest path
    std::unordered_map<uint32_t, size_t> _siteIndexes; ///< symbol -> index
    uint32_t _lastSlot = heap::kMaxSlots; ///< of the latest allocation, while nothing was allocated since
};

} // namespace vnt
