#include "collectors/inject/SafePoint.h"

#include <linux/futex.h>

#include <algorithm>
#include <iterator>

namespace vnt {
namespace {

// Numbers of <asm/unistd_64.h> and <asm/unistd_32.h>, for a tracer that is 64 bit and a target that is either. In none
// of these waits does the C library hold a lock of its allocator or its loader.
constexpr int kWaits64[] = {
    0, 1, 7, 19, 20, 23, 34, 35, 42, 43, 44, 45, 46, 47, // read write poll readv writev select pause
                                                         // nanosleep connect accept send.. recv..
    61, 65, 68, 69, 70, 73, 128, 130, // wait4 semop msgget msgsnd msgrcv flock rt_sigtimedwait rt_sigsuspend
    208, 219, 220, 230, 232, 247, 270, 271, // io_getevents restart_syscall semtimedop clock_nanosleep epoll_wait waitid
                                            // pselect6 ppoll
    281, 288, 299, 441, // epoll_pwait accept4 recvmmsg epoll_pwait2
};
constexpr int kWaits32[] = {
    0, 3, 4, 29, 82, 102, 114, 142, 143, 145, 146, 162, 168, 177, 179, // restart read write pause select
                                                                       // socketcall wait4 .. nanosleep poll ..
    256, 267, 284, 308, 309, 319, 337, 362, 364, 369, 370, 371, 372, // epoll_wait clock_nanosleep waitid pselect6
                                                                     // ppoll epoll_pwait recvmmsg socket calls
    407, 413, 414, 417, 421, // the same with 64-bit times
};
constexpr int kFutex64 = 202;
constexpr int kFutex32[] = {240, 422}; // futex, futex_time64
constexpr int kBroken64[] = {43, 45, 47, 65, 128, 208, 220, 232, 281, 288, 441};
constexpr int kBroken32[] = {102, 177, 256, 319, 364, 371, 372, 421};
/// __kernel_vsyscall: what a 32-bit program's system calls go through keeps three registers above its return address.
constexpr size_t kWordsInVsyscall = 3;

template <size_t N> bool contains(const int (&numbers)[N], int64_t number)
{
    return std::find(std::begin(numbers), std::end(numbers), number) != std::end(numbers);
}

/// Condition variables, semaphores, joins and barriers wait by FUTEX_WAIT_BITSET, the C library's own locks by
/// FUTEX_WAIT.
bool isUserFutex(uint64_t operation)
{
    return (operation & static_cast<uint64_t>(FUTEX_CMD_MASK)) == FUTEX_WAIT_BITSET;
}

} // namespace

bool isPatientWait(bool is32Bit, int64_t systemCall, uint64_t secondArgument)
{
    if (is32Bit)
        return contains(kWaits32, systemCall) || (contains(kFutex32, systemCall) && isUserFutex(secondArgument));
    return contains(kWaits64, systemCall) || (systemCall == kFutex64 && isUserFutex(secondArgument));
}

bool isBrokenByStop(bool is32Bit, int64_t systemCall)
{
    return is32Bit ? contains(kBroken32, systemCall) : contains(kBroken64, systemCall);
}

const char* whyUnsafe(const StoppedThread& thread, const std::function<CodeOwner(uint64_t)>& ownerOf)
{
    if (thread.inRestartableSequence)
        return "it is in a restartable sequence";
    // A handler may have interrupted anything.
    if (std::find_first_of(thread.stack.begin(), thread.stack.end(), thread.signalReturns.begin(),
                           thread.signalReturns.end())
        != thread.stack.end())
        return "it handles a signal";
    CodeOwner owner = ownerOf(thread.instruction);
    if (owner == CodeOwner::kKernel && thread.is32Bit && thread.stack.size() > kWordsInVsyscall)
        owner = ownerOf(thread.stack[kWordsInVsyscall]);
    switch (owner) {
    case CodeOwner::kProgram:
        return nullptr;
    case CodeOwner::kLibc:
        return thread.systemCall >= 0 && isPatientWait(thread.is32Bit, thread.systemCall, thread.secondArgument)
            ? nullptr
            : "it is in the C library";
    case CodeOwner::kGuarded:
        return "it is in the loader or the allocator";
    case CodeOwner::kKernel:
        return "it is in the kernel's own code";
    }
    return "it is somewhere unknown";
}

} // namespace vnt
