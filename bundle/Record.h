#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "bundle/FrameRole.h"

namespace vnt {

enum class RecordKind : uint8_t {
    // Stack Sampler
    kSample = 1, ///< a thread ran; durationNs: the processor time that the sample stands for
    kBlocked = 2, ///< a thread did not run for durationNs before timeNs
    // Heap Recorder
    kAllocation = 3, ///< name: function; values: address, size, slot
    kFree = 4, ///< values: address (0: unknown), size, slot (-1: of a block not recorded)
    kHeapFault =
        5, ///< name: what was done to a freed block; values: address, byte; text: whose stack it has, "allocated",
    ///< "freed" or "noticed" (one record each)
    kHeapTarget = 6, ///< name: the program that began to report; all earlier blocks are gone
    // Kernel Tracer
    kEvent = 7, ///< name: tracepoint; text: the system call's name, or what the event says; values: its own
    // Process Census
    kSweep = 8, ///< values: of the machine
    kProcessUsage = 9, ///< name; values: all that is known, see census::Field
    kProcessStarted = 10, ///< name; text: executable; values: parent, uid
    kProcessRenamed = 11, ///< name; text: executable: it began another program
    kProcessEnded = 12, ///< name; values: status, as of wait(2), -1: not known
    // Of several
    kFork = 13, ///< pid: parent; values: child
    kExec = 14, ///< name: of the program
    kExit = 15,
    kLost = 16, ///< name: the cause; values: count of records that are not in the bundle since the last such record
    kCost = 17, ///< values: processor_ns, what recording cost since its beginning
    // Orphan Finder
    kLeakSearch = 18, ///< name: the target; durationNs: it stood still; values: what was found
    kLeak =
        19, ///< of the search before; name: direct, cycle or indirect; values: address, size, holder (the leak, counted
    ///< from 1 in its search, that points to it; 0: none), is_new, allocated_ns; where classes were asked for also
    ///< table
    ///< and code, as of kClass. The stack is the allocation's
    // Heap Recorder, again
    kCount = 20, ///< name: the function called on a counted object; values: address, change (1, 0 or -1), before (the
    ///< object's count; 0: unknown). The stack is the caller's
    kClassLook = 21, ///< the classes of live blocks follow; earlier ones are past; values: blocks, bytes looked at
    kClass = 22, ///< values: table (what the blocks begin with), code (start of its module's), blocks, bytes
};

/// One record of an instrument. Views are valid during the call that delivers it.
struct Record {
    struct Value {
        std::string_view name; ///< ended by a zero byte
        int64_t value = 0; ///< addresses and other unsigned numbers keep their bits
    };

    RecordKind kind = RecordKind::kSample;
    uint64_t timeNs = 0; ///< CLOCK_MONOTONIC of the recorded machine
    uint64_t durationNs = 0;
    uint32_t pid = 0; ///< 0 where there is none
    uint32_t tid = 0;
    int32_t cpu = -1; ///< -1: not recorded
    std::string_view thread; ///< the thread's name
    std::string_view name;
    std::string_view text;
    std::span<const Value> values;
    /// Addresses, innermost first; those in the kernel have the highest bit set. Empty: none was recorded.
    std::span<const uint64_t> stack;
    bool isStackWhole = true; ///< false: the outer frames are missing
    FrameRole innermost = FrameRole::kExact; ///< of the stack's first address
    /// Within one reading, equal pid and key stand for equal stacks, so that work on a stack is done once. 0: no stack.
    uint64_t stackKey = 0;

    /// The role of the stack's address number `index`.
    [[nodiscard]] FrameRole role(size_t index) const
    {
        constexpr uint64_t kFirstKernelAddress = uint64_t{1} << 63; // x86: the upper half of the address space
        if (index == 0)
            return innermost;
        // Where user code entered the kernel, its address is the interrupted instruction, not a return address.
        const bool entersKernel = stack[index - 1] >= kFirstKernelAddress && stack[index] < kFirstKernelAddress;
        return entersKernel ? FrameRole::kExact : FrameRole::kReturn;
    }
};

} // namespace vnt
