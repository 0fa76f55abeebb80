#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Records of searches for leaks: blocks of a target's heap that nothing in it points to. A recording is a sequence of
/// messages; each is a header and records until its end.
///
/// Header (32 bytes): magic, version, flags (0), sequence, frame nodes defined earlier, 0, 0, base time. All integers
/// little-endian; a record is a byte of kind and LEB128 varints, signed ones zigzag-coded. Times are CLOCK_MONOTONIC
/// nanoseconds, each the signed difference to the time before it in the message (the first: to the base time).
///
/// A search is a kSearch, its leaks in the order of holders before held, and a kEnd. It may go on over several
/// messages; without its kEnd it is not whole. Stacks are paths in a tree of frame nodes as in HeapRecords.h.
namespace vnt::orphans {

inline constexpr uint32_t kMagic = 0x4850524f; ///< "ORPH"
inline constexpr uint16_t kVersion = 2; ///< raised with every change that an older reader would misread
/// Of messages whose leaks say nothing of classes.
inline constexpr uint16_t kPlainVersion = 1;
inline constexpr size_t kHeaderBytes = 32;

// Limits. A writer keeps them, a reader refuses what passes them.
inline constexpr size_t kMaxMessageBytes = size_t{4} << 20;
inline constexpr uint32_t kMaxNodes = 1u << 21;
inline constexpr uint32_t kMaxDepth = 512;
inline constexpr uint32_t kMaxLeaks = 1u << 20; ///< of one search that are told one by one; further ones are counted
inline constexpr size_t kMaxContentBytes = 256;
inline constexpr size_t kMaxTextBytes = 1024;

/// Environment variable of whoever launches a target: "1" asks for first bytes in a search at its exit, too.
inline constexpr char kContentsVariable[] = "VNT_LEAK_CONTENTS";

enum class RecordKind : uint8_t {
    kNode = 1, ///< caller's node, signed difference of the address to the caller's (the first: to 0)
    kCutNode = 2, ///< nothing: stands for outer frames that could not be reached
    kSearch = 3, ///< time, and the fields of SearchRecord in their order
    kLeak = 4, ///< see LeakRecord
    kEnd = 5, ///< leaks told, leaks only counted, bytes of these
    kNotSearched = 6, ///< time, pid, text: the target ended, or could not be looked into
};

/// How a leaked block is lost.
enum class Kind : uint8_t {
    kDirect = 0, ///< nothing points to it
    kCycle = 1, ///< only blocks that it holds itself, directly or not
    kIndirect = 2, ///< only leaked blocks, at least one of which it does not hold
};
inline constexpr size_t kKinds = 3;

struct SearchRecord {
    enum Flag : uint32_t {
        k32Bit = 1,
        kAtExit = 2, ///< when the target ended by itself
        kInPlace = 4, ///< too large to be copied: read while the target stood still
        kUnknownBlocks = 8, ///< blocks exist that the journal does not know: the allocator's memory counted as roots
        kUndecided = 16, ///< a thread was in the midst of a reallocation: what it can reach was taken as reachable
        kNoRegisters = 32, ///< of at least one thread
        kHasStacks = 64, ///< allocation stacks were asked for
        kHasContents = 128, ///< first bytes were asked for
    };
    uint32_t number = 0; ///< of the search in its session, from 1
    uint32_t pid = 0;
    uint32_t flags = 0;
    std::string name; ///< of the target
    uint64_t pauseNs = 0; ///< for so long the target stood still
    uint64_t verdictNs = 0; ///< from the request to the result
    uint32_t threads = 0;
    uint64_t blocks = 0; ///< live and known
    uint64_t blockBytes = 0;
    uint64_t rootBytes = 0; ///< searched for pointers beside the blocks
    uint64_t unreadableBytes = 0; ///< that should have been searched
    uint64_t olderBytes = 0; ///< of the allocator's memory that belongs to no known block, when that counted as root
    uint64_t lostEvents = 0; ///< allocations or frees that the journal lost before
    uint64_t leaks = 0;
    uint64_t leakedBytes = 0;
    bool operator==(const SearchRecord&) const = default;
};

/// As written: a byte of flags, signed difference of the address to the leak before (the first: to 0), size, holder,
/// signed difference of the allocation's time to the leak before, function, stack, contents as text; with kHasClass the
/// table, and the signed difference of the code to the table.
struct LeakRecord {
    enum Flag : uint8_t { kKindMask = 3, kNew = 4, kHasClass = 8 };
    uint64_t address = 0;
    uint64_t sizeBytes = 0;
    Kind kind = Kind::kDirect;
    bool isNew = false; ///< was not leaked at the search before; always true in the first
    uint32_t holder = 0; ///< the leak, counted from 1 in this search, that points to it; 0: none, or none before it
    uint64_t timeNs = 0; ///< of the allocation
    uint8_t function = 0; ///< heap::Function
    uint32_t stack = 0; ///< of the allocation; 0: not known, or not asked for
    std::string contents; ///< first bytes, when asked for
    uint64_t table =
        0; ///< what the block begins with where that is in a module's data, when asked for; 0: nothing such
    uint64_t code = 0; ///< start of that module's code
    bool operator==(const LeakRecord&) const = default;
};

struct EndRecord {
    uint64_t told = 0;
    uint64_t omitted = 0;
    uint64_t omittedBytes = 0;
    bool operator==(const EndRecord&) const = default;
};

struct NotSearchedRecord {
    uint64_t timeNs = 0;
    uint32_t pid = 0;
    std::string text; ///< a sentence
};

} // namespace vnt::orphans
