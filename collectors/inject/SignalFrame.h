#pragma once

#include <sys/user.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vnt {

/// What a thread was before it was borrowed.
struct SavedThread {
    bool is32Bit = false;
    user_regs_struct registers{};
    std::vector<std::byte> extendedState;
    uint64_t signalMask = 0;
    bool isAtSystemCall = false; ///< the next instruction is one
    int timedWait = -1; ///< the system call that restart_syscall(2) stands for, where that is known
};

/// Bytes for the upper end of a borrowed thread's stack. They look as if a signal handler had been called: a function
/// whose return address is that of the code that ends handlers gives the thread back by returning, without anyone's
/// help.
struct SignalFrame {
    std::vector<std::byte> bytes;
    uint64_t address = 0; ///< of `bytes` in the target
    uint64_t stackPointer = 0; ///< for the function to call: where its return address stands
};

/// `top`: where the stack ends; `arguments` are put on a 32-bit thread's stack. A wait in the kernel that the thread
/// was interrupted in is begun anew where that is possible, else it fails with EINTR.
SignalFrame makeSignalFrame(const SavedThread& thread, uint64_t top, uint64_t signalReturn,
                            const std::vector<uint64_t>& arguments);

} // namespace vnt
