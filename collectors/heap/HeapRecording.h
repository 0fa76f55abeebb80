#pragma once

#include <unordered_map>
#include <vector>

#include "collectors/common/RecordSink.h"
#include "collectors/heap/ClassLook.h"
#include "collectors/heap/HeapStacks.h"
#include "collectors/heap/JournalReader.h"
#include "collectors/heap/LiveBlocks.h"
#include "collectors/heap/TimeScale.h"
#include "records/HeapRecordWriter.h"

namespace vnt {

/// What the journal's events mean: keeps the live blocks current, and while collection runs, writes the recording and
/// sends it in batches. One thread.
class HeapRecording final : public JournalEventHandler {
public:
    HeapRecording(uint32_t eventsMask, const TimeScale& scale, RecordSink& sink);

    void onEvent(const JournalEvent& event) override;

    void beginProgram(uint64_t timeNs, const heap::TargetRecord& target);
    void endProgram(uint64_t timeNs, uint32_t pid);
    void noteLost(heap::LostCause cause, uint64_t total);
    /// The classes of the live blocks as they are now, while collection runs.
    void recordClasses(uint64_t timeNs, const ClassLook& look);

    void startCollection(uint64_t timeNs);
    /// Everything is handed to the sink before it returns.
    Status stopCollection(uint64_t timeNs, uint64_t cpuNs);
    [[nodiscard]] bool isCollecting() const { return _collecting; }

    /// Sends what has gathered when it is much, or when `all`; drops it when nobody reads.
    void flush(bool all, uint64_t cpuNs);
    [[nodiscard]] bool peerGone() const { return _peerGone; }

    [[nodiscard]] const LiveBlocks& blocks() const { return _blocks; }
    [[nodiscard]] HeapStacks& stacks() { return _stacks; }
    [[nodiscard]] const HeapStacks& stacks() const { return _stacks; }
    [[nodiscard]] const heap::TargetRecord& target() const { return _target; }
    /// Addresses of the blocks between the beginning and the end of a reallocation; 0: of one not known.
    [[nodiscard]] std::vector<uint64_t> reallocating() const;

private:
    void allocate(const JournalEvent& event, uint64_t timeNs);
    void free(const JournalEvent& event, uint64_t timeNs);
    void beginRealloc(const JournalEvent& event, uint64_t timeNs);
    void endRealloc(const JournalEvent& event, uint64_t timeNs);
    void keepZombie(const JournalEvent& event, uint64_t timeNs);
    void recordFault(const JournalEvent& event, uint64_t timeNs);
    void recordCount(const JournalEvent& event, uint64_t timeNs);
    void recordFree(uint64_t timeNs, heap::Function function, uint32_t slot);
    void dropSlot(uint32_t slot);
    void writeLosses(uint64_t timeNs);

    const TimeScale& _scale;
    RecordSink& _sink;
    LiveBlocks _blocks;
    HeapStacks _stacks;
    heap::HeapRecordWriter _writer;
    std::vector<uint32_t> _moving; ///< by ring: the slot of the block that is being reallocated
    std::vector<uint32_t> _freedOutside; ///< slots freed while collection was stopped, for when it goes on
    struct Zombie {
        uint32_t allocateStack = 0;
        uint32_t freeStack = 0;
    };
    std::unordered_map<uint64_t, Zombie> _zombies; ///< by address, where freed blocks are kept
    uint64_t _lost[heap::kLostCauses] = {};
    bool _lossesChanged = false;
    bool _hasTarget = false;
    bool _collecting = false;
    bool _peerGone = false;
    heap::TargetRecord _target;
    uint64_t _targetTimeNs = 0;
    bool _targetPending = false; ///< reported itself while collection was stopped
};

} // namespace vnt
