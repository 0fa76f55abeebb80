#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Records of sampled stacks. A recording is a sequence of messages; each is a header and then records until its end.
///
/// Header (32 bytes): magic, version, flags (0), generation, sequence, nodes defined earlier in this generation,
/// 0, base time. All integers little-endian; inside records LEB128 varints, signed ones zigzag-coded.
///
/// Stacks are paths in a tree of frame nodes: a node is its caller's node and one code address, node 0 is the empty
/// stack, and a stack is named by its innermost node. Nodes are numbered from 1 in the order they are defined.
/// Node and thread numbers hold within one generation; a new generation begins when a batch had to be dropped or a
/// table is full, and defines again what it uses. A message needs the earlier messages of its generation only.
///
/// Times are CLOCK_MONOTONIC nanoseconds, written as differences to the timed record before (the first one: to the
/// base time). Records of different processors interleave, so times may step back within a recording.
namespace vnt::stacks {

inline constexpr uint32_t kMagic = 0x4b545356; ///< "VSTK"
inline constexpr uint16_t kVersion = 1; ///< raised with every change that an older reader would misread
inline constexpr size_t kHeaderBytes = 32;

// Limits. A writer keeps them by beginning a new generation, a reader refuses what passes them.
inline constexpr size_t kMaxMessageBytes = size_t{4} << 20; ///< some 80 times the size a writer aims for
inline constexpr uint32_t kMaxNodes = 1u << 20; ///< a reader holds 16 bytes for each
inline constexpr uint32_t kMaxThreads = 1u << 17; ///< twice the tasks that a default pid_max allows at once
inline constexpr uint32_t kMaxDepth = 2048; ///< user and kernel frames of sysctl perf_event_max_stack at most
inline constexpr size_t kMaxNameBytes = 64; ///< the kernel's names have 15 at most

enum class RecordKind : uint8_t {
    kSample = 1, ///< dt, thread, stack
    kBlocked = 2, ///< dt, thread, stack, duration
    kNode = 3, ///< caller's node, signed difference of the address to the caller's (the first: to 0)
    kCutNode = 4, ///< nothing: a root of its own for stacks whose outer frames were cut off
    kThread = 5, ///< thread number, pid, tid, flags, name
    kSession = 6, ///< interval, flags, window; first record of every generation
    kLost = 7, ///< dt, cause, total since the recording began
    kExec = 8, ///< dt, pid, name
    kFork = 9, ///< dt, parent, child
    kExit = 10, ///< dt, pid
    kCost = 11, ///< dt, processor time, samples written since the recording began
};

enum class LostCause : uint8_t {
    kRingFull = 0, ///< records that the kernel had no room for
    kBatchDropped = 1, ///< samples of batches that nobody read in time
    kThrottled = 2, ///< samples that the kernel left out because sampling took too much time (estimated from the gap)
    kEventsDropped = 3, ///< exec, fork and exit records of dropped batches
    kMalformed = 4, ///< records that did not fit the kernel's own description
    kWindowFull = 5, ///< samples inside the window that its memory limit pushed out
};
inline constexpr size_t kLostCauses = 6;

/// What was recorded, and how.
struct SessionRecord {
    enum Flag : uint32_t {
        kUserStacks = 1,
        kKernelStacks = 2,
        kBlockedThreads = 4, ///< kBlocked records stand for time off the processor
        kUserModeOnly = 8, ///< the system allowed no samples while the kernel worked for the target
    };
    uint64_t intervalNs = 0; ///< processor time that one sample stands for
    uint32_t flags = 0;
    uint64_t windowNs = 0; ///< not 0: only this much before each pause was kept
    bool operator==(const SessionRecord&) const = default;
};

struct ThreadRecord {
    enum Flag : uint32_t {
        k32Bit = 1, ///< the process runs 32-bit code
        kKernelThread = 2, ///< no user address space
    };
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint32_t flags = 0;
    std::string name;
    bool operator==(const ThreadRecord&) const = default;
};

} // namespace vnt::stacks
