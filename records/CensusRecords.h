#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

/// Records of what every process uses. A recording is a sequence of messages; each is a header and then records until
/// its end.
///
/// Header (32 bytes): magic, version, flags (0), generation, sequence, 0, 0, base time. All integers little-endian;
/// inside records LEB128 varints, signed ones zigzag-coded.
///
/// A sweep is a look at every process. Behind its record stand the processes that changed since the sweep before, each
/// with the fields that changed, as differences: what is not there stayed as it was. Process numbers hold within one
/// generation; a new one begins when a batch had to be dropped, and tells all again.
///
/// Times are CLOCK_MONOTONIC nanoseconds, written as differences to the timed record before (the first one: to the
/// base time).
namespace vnt::census {

inline constexpr uint32_t kMagic = 0x4e454356; ///< "VCEN"
inline constexpr uint16_t kVersion = 1; ///< raised with every change that an older reader would misread
inline constexpr size_t kHeaderBytes = 32;

// Limits that a reader enforces; a writer keeps far below them.
inline constexpr size_t kMaxMessageBytes = size_t{4} << 20;
inline constexpr uint32_t kMaxProcesses = 1u << 22; ///< of one generation: the largest pid_max
inline constexpr size_t kMaxNameBytes = 256;

enum class RecordKind : uint8_t {
    kSession = 1, ///< interval, flags, processors, memory in KiB; first record of every generation
    kProcess = 2, ///< number, pid, parent, start time, uid, flags, name, executable; its fields begin at 0
    kSweep = 3, ///< dt, processes, busy and whole processor time, memory available in KiB
    kUsage = 4, ///< number, mask of fields, a signed difference for each
    kStarted = 5, ///< dt, number: the process began within the recording
    kEnded = 6, ///< dt, number, wait status plus 1 (0: not known)
    kRenamed = 7, ///< dt, number, name, executable: it began another program
    kLost = 8, ///< dt, cause, total since the recording began
    kCost = 9, ///< dt, processor time, sweeps, sweeps left out; all since the recording began
};

/// What is known of a process's use. Cumulative since its start, save where said.
enum class Field : uint8_t {
    kCpuNs, ///< processor time of all its threads, by the scheduler's clock
    kUserMs, ///< of that, in user mode, as the kernel's accounting splits it
    kSystemMs,
    kResidentKiB, ///< now
    kSharedKiB, ///< now: of the resident, what files and shared memory back
    kSwapKiB, ///< now
    kThreads, ///< now
    kDescriptors, ///< now; 0 where the reader may not look
    kMinorFaults,
    kMajorFaults,
    kVoluntarySwitches,
    kInvoluntarySwitches,
    kReadBytes, ///< fetched from storage
    kWrittenBytes, ///< sent towards storage
    kState, ///< now: the letter of proc(5)
};
inline constexpr size_t kFields = 15;
using Usage = std::array<int64_t, kFields>;
inline int64_t& at(Usage& usage, Field field) { return usage[static_cast<size_t>(field)]; }
inline int64_t at(const Usage& usage, Field field) { return usage[static_cast<size_t>(field)]; }

enum class LostCause : uint8_t {
    kEventsOverrun = 0, ///< times the kernel had more starts and ends to tell than its buffer held
    kBatchDropped = 1, ///< usage records of batches that nobody read in time
    kUnread = 2, ///< processes that had ended before anything but their beginning and end could be learned
};
inline constexpr size_t kLostCauses = 3;

struct SessionRecord {
    enum Flag : uint32_t {
        kNoEvents = 1, ///< starts and ends are known from sweeps only
        kOthersLimited = 2, ///< descriptors and I/O of other users' processes could not be read
    };
    uint64_t intervalNs = 0;
    uint32_t flags = 0;
    uint32_t processors = 0;
    uint64_t memoryKiB = 0;
    bool operator==(const SessionRecord&) const = default;
};

struct ProcessRecord {
    enum Flag : uint32_t {
        kKernelThread = 1,
    };
    uint32_t pid = 0;
    uint32_t parent = 0;
    uint64_t startNs = 0; ///< on the records' clock; 0 for what began before that clock
    uint32_t uid = 0;
    uint32_t flags = 0;
    std::string name;
    std::string executable; ///< empty where unknown
    bool operator==(const ProcessRecord&) const = default;
};

struct SweepRecord {
    uint32_t processes = 0;
    uint64_t busyMs = 0; ///< of all processors since boot
    uint64_t wholeMs = 0; ///< likewise, idle time included
    uint64_t availableKiB = 0;
    bool operator==(const SweepRecord&) const = default;
};

} // namespace vnt::census
