#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Records of a heap: what was allocated, where, and given back. A recording is a sequence of messages; each is a
/// header, definitions, and events until its end.
///
/// Header (32 bytes): magic, version, flags (0), sequence, nodes defined earlier, bytes of the definitions, 0, base
/// time. All integers little-endian; inside records a byte (kind in the low four bits, function in the high four) and
/// LEB128 varints, signed ones zigzag-coded.
///
/// Stacks are paths in a tree of frame nodes: a node is its caller's node and one return address, node 0 is the empty
/// stack, and a stack is named by its innermost node. Nodes are numbered from 1 in the order they are defined. When a
/// message had to be dropped, its definitions stand in the next one again: only events are lost.
///
/// A live block has a slot, a small number that is given anew once the block is freed. Events are in the order of their
/// times, CLOCK_MONOTONIC nanoseconds, written as differences to the event before (the first: to the base time).
namespace vnt::heap {

inline constexpr uint32_t kMagic = 0x50454856; ///< "VHEP"
inline constexpr uint16_t kVersion = 1; ///< raised with every change that an older reader would misread
inline constexpr size_t kHeaderBytes = 32;

// Limits. A writer keeps them, a reader refuses what passes them.
inline constexpr size_t kMaxMessageBytes = size_t{4} << 20;
inline constexpr uint32_t kMaxNodes = 1u << 21; ///< a reader holds some 100 bytes for each
inline constexpr uint32_t kMaxSlots = 1u << 27; ///< blocks alive at a time
inline constexpr uint32_t kMaxDepth = 512;
inline constexpr size_t kMaxNameBytes = 64;

enum class RecordKind : uint8_t {
    // Definitions.
    kNode = 1, ///< caller's node, signed difference of the address to the caller's (the first: to 0)
    kCutNode = 2, ///< nothing: a root of its own for stacks whose outer frames could not be reached
    kSession = 3, ///< events mask, flags
    // Events.
    kAllocate = 4, ///< dt, slot, stack, size, signed difference of the address to the allocation before (0)
    kFree = 5, ///< dt, slot
    kFreeUnknown = 6, ///< dt, address: a block allocated before the recording, or whose allocation was lost
    kFreedOutside = 7, ///< dt, slot: freed while collection was stopped
    kTarget = 8, ///< dt, pid, flags, name: a journal reported itself; every earlier block is gone with its program
    kNoTarget = 9, ///< dt: collection ended, and no journal had reported itself
    kExit = 10, ///< dt, pid
    kLost = 11, ///< dt, cause, total since the recording began
    kCost = 12, ///< dt, processor time, events written since the recording began
    kFault = 13, ///< dt, fault, address, byte, stacks of the allocation, of the free, and of the present call
};

enum class LostCause : uint8_t {
    kRingFull = 0, ///< events that a thread of the target had no room for
    kBatchDropped = 1, ///< events of batches that nobody read in time
    kNoRing = 2, ///< events of threads beyond those that can be recorded at a time
    kNested = 3, ///< events of a signal handler that interrupted the recording of another
    kMalformed = 4, ///< rings given up because what stood in them made no sense
    kNoNode = 5, ///< allocations that are recorded without their stack: too many different ones
};
inline constexpr size_t kLostCauses = 6;

/// What was done to a block after its free, where freed blocks were kept.
enum class Fault : uint8_t { kSecondFree, kWritten };

/// Which function allocated or freed, as far as known.
enum class Function : uint8_t { kMalloc, kCalloc, kRealloc, kAligned, kOperator, kOperatorArray };
inline constexpr size_t kFunctions = 6;

struct SessionRecord {
    uint32_t eventsMask = 0; ///< as the client asked
    uint32_t flags = 0;
    bool operator==(const SessionRecord&) const = default;
};

struct FaultRecord {
    Fault fault = Fault::kSecondFree;
    uint64_t address = 0;
    uint64_t byte = 0; ///< kWritten: the first that was changed
    uint32_t allocateStack = 0; ///< 0: unknown
    uint32_t freeStack = 0;
    uint32_t faultStack = 0; ///< of the second free; of a write only where it was noticed
    bool operator==(const FaultRecord&) const = default;
};

struct TargetRecord {
    enum Flag : uint32_t {
        k32Bit = 1,
        kAttached = 4, ///< it ran before: blocks from then are unknown
        kNoJournal = 2, ///< the target executes a program that did not load the journal: nothing follows
    };
    uint32_t pid = 0;
    uint32_t flags = 0;
    std::string name;
};

} // namespace vnt::heap
