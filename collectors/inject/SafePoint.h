#pragma once

#include <cstdint>
#include <functional>
#include <span>

namespace vnt {

/// Whose code it is that a thread runs, as far as locks matter that a function called on that thread might need.
enum class CodeOwner : uint8_t {
    kProgram, ///< the program's, or a library's
    kLibc, ///< may hold the C library's locks
    kGuarded, ///< the dynamic loader, an allocator, our own library: may hold theirs
    kKernel, ///< the vdso
};

/// A thread that stands still.
struct StoppedThread {
    bool is32Bit = false;
    uint64_t instruction = 0;
    int64_t systemCall = -1; ///< that it was stopped in; -1: none
    uint64_t secondArgument = 0; ///< of that system call
    std::span<const uint64_t> stack; ///< words from the stack pointer on
    std::span<const uint64_t> signalReturns; ///< addresses of the codes that end signal handlers
    bool inRestartableSequence = false;
};

/// Null when a function that takes the C library's and the loader's locks may be called on the thread as if it had been
/// interrupted by it; else why not. Only certain waits count as safe inside the C library: those in which it holds none
/// of these locks. Costs a look at each word of the stack.
const char* whyUnsafe(const StoppedThread& thread, const std::function<CodeOwner(uint64_t)>& ownerOf);

/// A wait of the thread in which it may be for long: such threads are asked first, they are found where they were left.
[[nodiscard]] bool isPatientWait(bool is32Bit, int64_t systemCall, uint64_t secondArgument);

/// A wait that the kernel ends with EINTR when a thread is stopped, where others are taken up again by themselves.
[[nodiscard]] bool isBrokenByStop(bool is32Bit, int64_t systemCall);

} // namespace vnt
