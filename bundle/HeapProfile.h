#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bundle/Bundle.h"
#include "bundle/ReferenceCounts.h"
#include "records/HeapRecords.h"

namespace vnt {

struct HeapCounts {
    uint64_t allocations = 0;
    uint64_t bytes = 0; ///< allocated, as asked for
    uint64_t liveBlocks = 0; ///< allocated in the recording and not freed by its end
    uint64_t liveBytes = 0;
    uint64_t temporary = 0; ///< freed before the program's next allocation

    void add(const HeapCounts& other)
    {
        allocations += other.allocations;
        bytes += other.bytes;
        liveBlocks += other.liveBlocks;
        liveBytes += other.liveBytes;
        temporary += other.temporary;
    }
};

/// One function that allocated, whatever called it.
struct HeapSite {
    uint32_t symbol = 0;
    HeapCounts counts;
    /// The call path that allocated most bytes here: its callers, the nearest first. At most kMaxCallers.
    std::vector<uint32_t> callers;
    static constexpr size_t kMaxCallers = 16;
};

/// Allocations of sizes from one power of two up to the next: [2^(n-1), 2^n), 0 in the first.
inline constexpr size_t kHeapSizeClasses = 49;

struct HeapTotals {
    HeapCounts all;
    uint64_t frees = 0; ///< also of blocks allocated before the recording
    uint64_t unknownFrees = 0; ///< of these, of blocks whose allocation is not recorded
    uint64_t peakBytes = 0; ///< most bytes live at a time
    uint64_t peakTimeNs = 0;
    uint64_t firstTimeNs = 0;
    uint64_t lastTimeNs = 0;
    std::array<uint64_t, kHeapSizeClasses> bySize{};
    std::array<uint64_t, heap::kFunctions> byFunction{};
    std::array<uint64_t, heap::kLostCauses> lostByCause{};
    uint64_t missingMessages = 0;
    uint64_t damagedMessages = 0;
    uint64_t recorderCpuNs = 0;
    uint64_t faults = 0;
    uint32_t eventsMask = 0;
    uint32_t pid = 0; ///< that the records are of; 0: no journal reported itself
    bool is32Bit = false;
    bool attached = false; ///< the target ran before: blocks from then are unknown
    bool lostTarget = false; ///< the target went on as a program without a journal
    bool noTarget = false; ///< collection ended without a journal
    std::string targetName;

    /// Events that are not in the bundle.
    [[nodiscard]] uint64_t lost() const
    {
        uint64_t sum = 0;
        for (const heap::LostCause cause : {heap::LostCause::kRingFull, heap::LostCause::kBatchDropped,
                                            heap::LostCause::kNoRing, heap::LostCause::kNested})
            sum += lostByCause[static_cast<size_t>(cause)];
        return sum;
    }
};

/// A block that was used after its free. Paths: symbols, the innermost function first.
struct HeapFault {
    heap::Fault fault = heap::Fault::kSecondFree;
    uint64_t address = 0;
    uint64_t byte = 0; ///< the first changed one
    std::vector<uint32_t> allocated;
    std::vector<uint32_t> freed;
    std::vector<uint32_t> noticed; ///< the second free, the retain or release, or where the change was noticed
    static constexpr size_t kMaxKept = 1000; ///< nobody reads more of a program's faults; all are counted
};

/// Live blocks that hold an object of one C++ class, or an array of such.
struct HeapClass {
    std::string name;
    uint64_t blocks = 0;
    uint64_t bytes = 0;
};

/// The classes of blocks at the latest look at them.
struct HeapClasses {
    bool known = false; ///< there was a look
    uint64_t blocks = 0; ///< looked at
    uint64_t bytes = 0;
    std::vector<HeapClass> classes; ///< most bytes first
};

/// The heap recorder's part of a bundle.
struct HeapProfile {
    HeapTotals totals;
    std::vector<HeapSite> sites; ///< most bytes first
    std::vector<HeapFault> faults; ///< in order
    ReferenceCounts counts;
    HeapClasses classes;
    std::unique_ptr<Symbolizer> symbolizer; ///< of the sites' symbols; tells the bundle's remarks
    uint64_t messages = 0;
    uint64_t droppedMessages = 0;
};

/// Reads and symbolizes all of it. Some 40 ns an event; memory grows with the different stacks and the blocks alive at
/// a time, not with the recording. Never fails: what cannot be read is told in the bundle's remarks. The bundle
/// outlives the result.
[[nodiscard]] HeapProfile readHeap(const Bundle& bundle, const InstrumentData& data,
                                   const ReadingOptions& options = {});

} // namespace vnt
