#pragma once

#include <stddef.h>
#include <stdint.h>

/// What the heap journal inside a target and the collector share: the greeting, and the memory that the collector makes
/// and the journal fills. The same for 32- and 64-bit targets: fixed widths, no pointers, no padding left to the
/// compiler. Neither side trusts the other's half of it.
namespace vnt::journal {

inline constexpr uint32_t kMagic = 0x4a484e56; ///< "VNHJ"
inline constexpr uint16_t kVersion = 2; ///< both ends come from one build; others refuse one another

// Bits of an events mask that ask for more than allocations.
inline constexpr uint32_t kCountEvents = 0x3000f008; ///< references taken to counted objects and given back
inline constexpr uint32_t kClassNames = 0x00100000; ///< the C++ classes of live blocks; the collector's business

/// Environment variable that names the collector's abstract Unix socket (unix(7)), without the leading null byte.
inline constexpr char kSocketVariable[] = "VNT_HEAP_JOURNAL";

/// First packet, from the journal, when its library is loaded. Who sent it is told by the socket's credentials.
struct Hello {
    uint32_t magic;
    uint16_t version;
    uint16_t pointerBytes; ///< 4 or 8
};
static_assert(sizeof(Hello) == 8);

/// The answer; with it one descriptor, the memory, when `record` is 1.
struct Welcome {
    uint32_t magic;
    uint16_t version;
    uint16_t record; ///< 0: stay quiet, for example in a child of the target
    uint32_t eventsMask; ///< what the client asked for
    uint32_t flags;
};
static_assert(sizeof(Welcome) == 16);

/// What the exported functions of the journal are told when it is loaded into a process that runs already, and answer.
/// They are called by a tracer on a thread at a safe point. A tracer that dies leaves its call to go on by itself, and
/// the next one may come before that has ended: one that finds another at work does nothing.
///   vntJournalMemory   makes a descriptor of anonymous memory for the collector to take and to size; answers it
///   vntJournalAttach   maps that memory, closes the descriptor, redirects the loaded modules, now and as others are
///                      loaded, and records from there on
///   vntJournalDetach   gives the modules back what they had, and the memory away; the library stays, idle
struct AttachRequest {
    uint32_t magic;
    uint16_t version;
    uint16_t answered; ///< 1 when the function came to its end
    int32_t result; ///< answer: 0 or more, or an AttachError, or a negated errno
    int32_t descriptor; ///< vntJournalAttach
    uint32_t flags; ///< as in Welcome
    uint32_t eventsMask; ///< as in Welcome
    uint32_t deadBeat; ///< with kTakeOver: an earlier collector's journal is taken over if it is at this beat still
    uint32_t beat; ///< answer to kJournalBusy
    uint32_t redirected; ///< answer: places that lead to the journal now
    uint32_t refused; ///< answer: places that could not be changed
    uint64_t errorPlace; ///< answer: where the calling thread has its errno
    uint64_t workPlace; ///< answer, from the beginning of the call on: what says who is at work, 32 bits
    uint32_t worker; ///< answer: what it says during this call; a tracer that takes the thread out of it puts 0 there
    uint32_t reserved;
};
static_assert(sizeof(AttachRequest) == 64);

enum AttachError : int32_t {
    kJournalForeign = -1001, ///< another version of the journal is loaded
    kJournalBusy = -1002, ///< it records for another collector
    kJournalUnsound = -1003, ///< the memory is not as it must be, or cannot be mapped
    kJournalNothing = -1004, ///< no module calls an allocator that can be redirected
    kJournalStraying = -1005, ///< a thread is still within a record; the memory stays mapped
    kJournalAtWork = -1006, ///< another thread is within one of these functions
};

inline constexpr uint32_t kClockIsTsc = 1; ///< Welcome::flags: times are rdtsc ticks, else CLOCK_MONOTONIC ns
inline constexpr uint32_t kTakeOver = 4; ///< AttachRequest::flags
inline constexpr uint32_t kKeepZombies = 2; ///< Welcome::flags: freed blocks are filled and kept for a while

// The memory: a page for everybody, then the rings. It is sparse: what no thread uses costs nothing.
inline constexpr uint32_t kRings = 256; ///< threads alive at a time that are recorded
inline constexpr uint32_t kRings32Bit = 48; ///< mapped by a 32-bit target: 96 MiB of its address space
inline constexpr uint32_t kSharedBytes = 4096;
inline constexpr uint32_t kRingWords = 1u << 17; ///< 1 MiB; some 50,000 events
inline constexpr uint32_t kStackSlots = 1u << 12; ///< stacks a thread remembers to have sent
inline constexpr uint32_t kFrameSlots = 1u << 13; ///< code addresses whose frame layout a thread remembers
inline constexpr uint32_t kMaxFrames =
    96; ///< of one stack; heaps are rarely reached deeper, and each costs a nanosecond

enum State : uint32_t {
    kRecording = 1,
    kOff = 2, ///< the collector is gone, or is about to be: the journal passes calls through from now on
};

/// The first page.
struct Shared {
    uint32_t state; ///< State; written by the collector, and by the journal when the collector seems dead
    uint32_t beat; ///< counts up at least four times a second while the collector lives
    uint32_t collectorSleeps; ///< futex: 1 while the collector waits for work; the journal may wake it
    uint32_t ringsUsed; ///< rings below this number were claimed at some time; journal
    uint32_t exitAsked; ///< 1: the target is about to end and waits a moment; journal
    uint32_t exitAnswered; ///< 1: everything written was read, and the mappings too; collector
    uint32_t unrecordedThreads; ///< events of threads that found no ring; journal
    uint32_t nestedEvents; ///< events lost within another event of their thread (signal handlers); journal
};
static_assert(sizeof(Shared) == 32);

/// In front of each ring. Positions count words and wrap at 2^32. The halves stand on cache lines of their own.
struct RingHeader {
    uint32_t head; ///< journal: everything before it is written
    uint32_t busy; ///< journal: 1 from before a record's time is taken until it is published
    uint32_t owner; ///< journal: id of the thread that writes here; when it has ended, another takes the ring over
    uint32_t waits; ///< journal: 1 while its thread waits for room
    uint64_t lost; ///< journal: events that found no room
    uint64_t lastTime; ///< journal: of the latest record; written before `head`
    uint8_t pad[32];
    uint32_t tail; ///< collector: everything before it may be overwritten
    uint8_t pad2[60];
};
static_assert(sizeof(RingHeader) == 128 && offsetof(RingHeader, tail) == 64);

/// One known code address: how to get from a frame to its caller's. The journal's own; here for its size.
struct FrameSlot {
    uint64_t address;
    uint64_t rule;
};

/// One ring and what its thread remembers. Only header and words are read by the collector.
struct Ring {
    RingHeader header;
    uint8_t pad[4096 - sizeof(RingHeader)];
    uint64_t words[kRingWords];
    uint64_t stackHashes[kStackSlots];
    FrameSlot frames[kFrameSlots];
    uint8_t rest[(2u << 20) - 4096 - 8 * kRingWords - 8 * kStackSlots - 16 * kFrameSlots];
};
static_assert(sizeof(Ring) == 2u << 20);

inline constexpr uint64_t totalBytes(uint32_t rings) { return kSharedBytes + uint64_t{rings} * sizeof(Ring); }

// clang-format off
// Records: the kind in the low four bits of the first word. Times have 60 bits, addresses and sizes 48.
//   kStack         kind | cut << 4 | frames << 8 | slot << 16    then one word a frame, innermost first (return addresses)
//   kAllocate      kind | time << 4    address | slot << 48      size | function << 48
//   kFree          kind | time << 4    address | function << 48
//   kReallocBegin  like kFree; the block is neither here nor there until the thread's next record
//   kReallocEnd    like kAllocate; address 0: it failed, the old block lives
// While freed blocks are kept, all like kAllocate, the stack being that of the present call:
//   kFreeKept      a free; the block is kept
//   kSecondFree    a free of a block that is kept
//   kDamaged       a kept block was written to; in place of the size the first changed byte
// When kCountEvents are asked for:
//   kThread        kind | thread id << 4: who writes the counts behind it in this ring
//   kCount         like kAllocate: the object's address; in place of the size its count before the call, 0 when not
//                  known; in place of the function a Counting
//   kCountOfFreed  likewise for an object in a kept block; the block's address, in place of the size the object's place
//                  in the block. The object was not touched
// clang-format on
enum Kind : uint32_t {
    kStack = 1,
    kAllocate = 2,
    kFree = 3,
    kReallocBegin = 4,
    kReallocEnd = 5,
    kFreeKept = 6,
    kSecondFree = 7,
    kDamaged = 8,
    kThread = 9,
    kCount = 10,
    kCountOfFreed = 11,
};
inline constexpr uint32_t kAllocateWords = 3;
inline constexpr uint32_t kFreeWords = 2;
inline constexpr uint32_t kLowBits = 48;
inline constexpr uint64_t kLowMask = (uint64_t{1} << kLowBits) - 1;
inline constexpr uint32_t kNoStack = 0xffff; ///< slot of an allocation without a stack

/// Which function allocated or freed.
enum Function : uint16_t { kMalloc = 0, kCalloc = 1, kRealloc = 2, kAligned = 3, kOperator = 4, kOperatorArray = 5 };

/// Which function was called on a counted object, and what it does to the count.
enum Counting : uint16_t {
    kRef = 0, ///< g_object_ref: one more
    kUnref = 1, ///< g_object_unref: one less
    kRefSink = 2, ///< g_object_ref_sink of an object that is owned: one more
    kSink = 3, ///< g_object_ref_sink of a floating object: the caller owns it now, the count stays
    kTakeRef = 4, ///< g_object_take_ref: the count stays
    kRetain = 5, ///< CFRetain of our library: one more
    kRelease = 6, ///< CFRelease: one less
};

} // namespace vnt::journal
