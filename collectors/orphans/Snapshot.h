#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "collectors/heap/HeapView.h"
#include "collectors/orphans/BlockIndex.h"
#include "collectors/orphans/MemoryImage.h"
#include "collectors/orphans/PausedTarget.h"

namespace vnt::orphans {

struct SnapshotOptions {
    bool atExit = false; ///< the target waits already: it is held still before anything else is done
    uint64_t limitBytes = 0; ///< of memory to copy; 0: half of what the machine has left
};

/// What a search goes by: a target's memory, registers and blocks of one moment.
struct Snapshot {
    pid_t pid = 0;
    std::string name;
    bool is32Bit = false;
    uint64_t timeNs = 0; ///< when all threads stood still
    uint64_t pauseNs = 0; ///< all in all
    std::vector<MapEntry> maps;
    std::vector<PausedThread> threads;
    MemoryImage image;
    std::vector<LiveBlock> blocks;
    HeapStacks stacks;
    std::vector<uint64_t> reallocating; ///< as of HeapView
    uint64_t lostEvents = 0;
    bool hasUnknownBlocks = false;

    /// What `look` of takeSnapshot() is called with when the memory was not copied: only now can it be read.
    [[nodiscard]] bool isWindow() const { return !image.isCopy(); }
};

/// Holds the target still on a thread that this makes and joins, for as long as the copy takes: some 5 ms, and 0.2 ms
/// for each MiB. `onWindow` is called meanwhile when the memory is too large to be copied. On the heap collector's
/// thread. Errors: kNotFound when the target has ended, kDenied when it cannot be held still.
Result<std::unique_ptr<Snapshot>> takeSnapshot(HeapView& heap, const SnapshotOptions& options,
                                               const std::function<void(Snapshot&)>& onWindow);

} // namespace vnt::orphans
