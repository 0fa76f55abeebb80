#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "records/StackRecords.h"

/// Records of kernel events. A recording is a sequence of messages; each is a header and then records until its end.
///
/// Header (48 bytes): magic, version, flags (0), generation, sequence, frame nodes and event types defined earlier in
/// this generation, events in this message, 0, base time, window begin. All integers little-endian; inside records
/// LEB128 varints, signed ones zigzag-coded.
///
/// A record begins with its kind; from kFirstEvent on the kind is an event of type number kind - kFirstEvent. Event
/// types are defined by the recording itself: a name, what it means, and the names of its values. Values are written as
/// differences to those of the event of the same type before it in the message (the first one: to 0), so what repeats
/// costs a byte.
///
/// Stacks, threads, generations and times are those of StackRecords.h. Events come in the order in which processors
/// were read; kSettled says up to where no more are to come, so that a reader can sort in bounded memory.
namespace vnt::trace {

inline constexpr uint32_t kMagic = 0x43525456; ///< "VTRC"
inline constexpr uint16_t kVersion = 1; ///< raised with every change that an older reader would misread
inline constexpr size_t kHeaderBytes = 48;

// Limits. A writer keeps them by beginning a new generation, a reader refuses what passes them.
inline constexpr size_t kMaxMessageBytes = size_t{4} << 20;
inline constexpr uint32_t kMaxTypes = 4096; ///< tracepoints, and each system call twice, for two kinds of code
inline constexpr size_t kMaxValues = 8; ///< of one event; system calls have six arguments
inline constexpr size_t kMaxNameBytes = 64; ///< of a type, a label or a value
inline constexpr size_t kMaxTextBytes = 255; ///< of an event's text; longer ones are cut
inline constexpr uint32_t kMaxProcessors = 8192; ///< NR_CPUS of the largest distribution kernels

enum class RecordKind : uint8_t {
    kNode = 1, ///< caller's node, signed difference of the address to the caller's
    kCutNode = 2, ///< nothing: a root of its own for stacks whose outer frames were cut off
    kThread = 3, ///< thread number, pid, tid, flags, name
    kType = 4, ///< event kind, number, name, label, flags, count of values, their names
    kSession = 5, ///< flags, pid, window, frames; first record of every generation
    kProcessor = 6, ///< number: the events from here on happened there
    kSettled = 7, ///< dt: events from here on are not earlier
    kLost = 8, ///< dt, cause, total since the recording began
    kFork = 9, ///< dt, parent, child: a new process
    kCost = 10, ///< dt, processor time, events written, both since the recording began
};
/// Varint; the rest of an event: dt, thread, stack and values and text as its type says.
inline constexpr uint64_t kFirstEvent = 16;

/// What an event means, and so what its values are. Readers take values by their place for these kinds.
enum class EventKind : uint32_t {
    kOther = 0, ///< values as named
    kSwitch = 1, ///< the thread's state (sched(7) bits, 0: could go on), thread that follows
    kWakeup = 2, ///< thread that may run again, processor it was put on
    kCallEnter = 3, ///< arguments; the type's number is the system call's
    kCallExit = 4, ///< result, below 0 an error number; likewise
    kNewTask = 5, ///< tid of the new thread, clone(2) flags
    kRename = 6, ///< tid; the text is the new name
    kFork = 7, ///< tid of the new thread or process
    kExec = 8, ///< text: the program
    kExit = 9, ///< 1: the whole process
    kSignalGenerate = 10, ///< signal, its code, tid it goes to, result (0: delivered)
    kSignalDeliver = 11, ///< signal, its code, handler (0: default, 1: ignored)
    kPageFault = 12, ///< address, code address, error code of the processor
    kInterruptEnter = 13, ///< number; the text is its name
    kInterruptExit = 14, ///< number, 1: handled
    kSoftInterruptEnter = 15, ///< vector
    kSoftInterruptExit = 16, ///< vector
    kLockBegin = 17, ///< address of the kernel lock waited for, flags
    kLockEnd = 18, ///< address, result
    kSend = 19, ///< socket, family, protocol, length or error
    kReceive = 20, ///< as above
    kDiskIssue = 21, ///< device, sector, bytes; the text is the operation
    kDiskComplete = 22, ///< device, sector, sectors, error; likewise
    kRingSubmit = 23, ///< request, operation
    kRingComplete = 24, ///< request, result
};

enum class LostCause : uint8_t {
    kRingFull = 0, ///< records that the kernel had no room for
    kBatchDropped = 1, ///< events of batches that nobody read in time
    kMalformed = 2, ///< records that did not fit the kernel's own description
    kWindowFull = 3, ///< events inside the window that its memory limit pushed out
    kRecursion = 4, ///< events that happened while another one was being recorded on the same processor
};
inline constexpr size_t kLostCauses = 5;

/// What was recorded, and how.
struct SessionRecord {
    enum Flag : uint32_t {
        kUserStacks = 1,
        kKernelStacks = 2,
        kAllProcesses = 4,
        kKernelProgram = 8, ///< events were picked and written by a BPF program, else by perf events
    };
    uint32_t flags = 0;
    uint32_t pid = 0; ///< the process recorded, with its children; 0 with kAllProcesses
    uint64_t windowNs = 0; ///< not 0: only this much before each pause was kept
    uint32_t maxFrames = 0;
    [[nodiscard]] bool hasStacks() const { return (flags & (kUserStacks | kKernelStacks)) != 0; }
    bool operator==(const SessionRecord&) const = default;
};

/// A flag of ThreadRecord besides its own: the thread is not of the target. What it did is recorded because it is about
/// a thread of the target, which it woke or gave the processor to.
inline constexpr uint32_t kOutsideTarget = 4;

struct TypeRecord {
    enum Flag : uint32_t {
        kText = 1, ///< events carry a text behind their values
        kAddresses = 2, ///< values are best shown in hexadecimal
        kStacks = 4, ///< events carry the number of a stack; set by the writer
    };
    EventKind kind = EventKind::kOther;
    uint32_t number = 0; ///< of the system call
    std::string name; ///< "sched:sched_switch"
    std::string label; ///< name of the system call, else empty
    uint32_t flags = 0;
    std::vector<std::string> values; ///< names, at most kMaxValues
    bool operator==(const TypeRecord&) const = default;
};

} // namespace vnt::trace
