#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

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
inline constexpr uint16_t kVersion = 2; ///< raised with every change that an older reader would misread
/// Without counts, classes and what was done to freed counted objects: written where nobody asked for these.
inline constexpr uint16_t kPlainVersion = 1;
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
    // Since version 2.
    kCount = 14, ///< dt, thread, stack, count before the call (0: unknown), signed difference of the object's address
    ///< to the one before in the message (0); in place of the function the Counting
    kMore = 15, ///< in place of the function the MoreKind
};

enum class MoreKind : uint8_t {
    kClassLook = 0, ///< dt, blocks and bytes that were looked at: the classes of live blocks follow, earlier ones are
    ///< past
    kClass = 1, ///< dt, what the blocks begin with, start of its module's code, blocks, their bytes
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

/// What was done to a block after its free, where freed blocks were kept. The last two: a counted object in it was
/// retained or released.
enum class Fault : uint8_t { kSecondFree, kWritten, kRetained, kReleased };
inline constexpr size_t kFaults = 4;

/// Which function changed an object's count of references; as journal::Counting.
enum class Counting : uint8_t { kRef, kUnref, kRefSink, kSink, kTakeRef, kRetain, kRelease };
inline constexpr size_t kCountings = 7;

/// What it does to the count. Who sinks a floating object owns the reference that was there.
constexpr int changeOf(Counting counting)
{
    if (counting == Counting::kUnref || counting == Counting::kRelease)
        return -1;
    return counting == Counting::kSink || counting == Counting::kTakeRef ? 0 : 1;
}

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
    uint64_t byte = 0; ///< kWritten: the first that was changed; kRetained, kReleased: where the object began
    uint32_t allocateStack = 0; ///< 0: unknown
    uint32_t freeStack = 0;
    uint32_t faultStack = 0; ///< of the second free; of a write only where it was noticed
    bool operator==(const FaultRecord&) const = default;
};

constexpr std::string_view nameOf(Fault fault)
{
    constexpr std::string_view kNames[kFaults] = {"freed twice", "written after its free", "retained after its free",
                                                  "released after its free"};
    return kNames[static_cast<size_t>(fault)];
}

constexpr std::string_view nameOf(Counting counting)
{
    constexpr std::string_view kNames[kCountings] = {"g_object_ref",      "g_object_unref",    "g_object_ref_sink",
                                                     "g_object_ref_sink", "g_object_take_ref", "CFRetain",
                                                     "CFRelease"};
    return kNames[static_cast<size_t>(counting)];
}

struct CountRecord {
    Counting counting = Counting::kRef;
    uint32_t thread = 0; ///< id of the thread; 0: unknown
    uint32_t stack = 0;
    uint64_t before = 0; ///< the count before the call; 0: unknown
    uint64_t object = 0; ///< its address
    bool operator==(const CountRecord&) const = default;
};

/// Live blocks that begin with the same address in a module: objects of one C++ class if a virtual table is there.
struct ClassRecord {
    uint64_t table = 0;
    uint64_t code = 0; ///< start of a mapping of the module's code: tells the module
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    bool operator==(const ClassRecord&) const = default;
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
