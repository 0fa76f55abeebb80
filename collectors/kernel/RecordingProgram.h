#pragma once

#include <linux/bpf.h>

#include <cstdint>
#include <vector>

#include "collectors/kernel/KernelTracer.h"
#include "collectors/kernel/Tracepoint.h"

namespace vnt {

/// What a recording program writes for one event, in native byte order: this header, the values as 64-bit words, the
/// text if the event has one, then the addresses of the kernel's stack and of the user's.
struct ProgramRecord {
    uint64_t timeNs; ///< CLOCK_MONOTONIC
    uint32_t pid;
    uint32_t tid;
    uint16_t cpu;
    uint16_t tracepoint;
    uint16_t kernelBytes;
    uint16_t userBytes;
};
static_assert(sizeof(ProgramRecord) == 24);

/// The first word of a system call's record is its number.
size_t programWords(const Tracepoint& tracepoint);
/// Bytes of the text, 0 without one; it ends with a zero byte.
size_t programTextBytes(const Tracepoint& tracepoint);

/// The maps that programs share.
struct ProgramMaps {
    int enabled = -1; ///< array of one: 64 bits, not 0: events are recorded
    int losses = -1; ///< array of one: ProgramLosses
    int tasks = -1; ///< hash: thread id -> 4 bytes; threads whose events are wanted
    int scratch = -1; ///< per-processor array of one: kScratchBytes
    int ring = -1; ///< ring buffer
};
struct ProgramLosses {
    uint64_t lost; ///< events that found no room
    uint64_t unfollowed; ///< new threads that found no room in the map of tasks
};

inline constexpr size_t kProgramFrames = 255; ///< of either stack, at most
inline constexpr size_t kScratchBytes = 4608; ///< header, words, text and two stacks

/// The program that records one tracepoint, filtered by `maps.tasks` unless all processes are wanted. Pure.
std::vector<bpf_insn> recordingProgram(const KernelTracerOptions& options, const Tracepoint& tracepoint, uint16_t index,
                                       uint32_t maxFrames, const ProgramMaps& maps);
/// The program for sched:sched_process_fork that makes a wanted thread's child wanted.
std::vector<bpf_insn> forkProgram(const ValueSlot& child, const ProgramMaps& maps);
/// The program for sched:sched_process_free that forgets a thread.
std::vector<bpf_insn> freeProgram(const ValueSlot& thread, const ProgramMaps& maps);

} // namespace vnt
