#pragma once

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

// What a child may do that shares its parent's memory until execve(2) (CLONE_VM | CLONE_VFORK). It makes raw system
// calls only: libc's wrappers are cancellation points, and a sanitizer's interceptors would take the child for its
// parent and keep books, in the parent's memory, of what only the child did. Errors arrive in errno, the parent's own.

/// On every function that runs in such a child: it leaves its frames without returning from them.
#define VNT_IN_CHILD __attribute__((no_sanitize("address", "thread", "undefined")))

// clone(2) by glibc's other name: the thread sanitizer takes calls of `clone` for a fork that leaves this process, and
// from then on it overlooks what the parent's locks order.
extern "C" int vntClone(int (*function)(void*), void* stack, int flags, void* argument, ...) noexcept
    __asm__("__clone");

namespace vnt::child {

constexpr int kLastSignal = 64; // _NSIG of <asm/signal.h>
constexpr long kSignalSetBytes = 8; // a kernel signal set, both widths

/// struct sigaction of rt_sigaction(2): the handler stands first on every x86, all zero is SIG_DFL.
struct KernelAction {
    void (*handler)(int);
    long rest[7];
};

VNT_IN_CHILD inline long setDefaultAction(int signal)
{
    static constexpr KernelAction kStandard{};
    return ::syscall(SYS_rt_sigaction, signal, &kStandard, nullptr, kSignalSetBytes);
}

/// What has a handler gets its default action; what is ignored stays so, as across any exec.
VNT_IN_CHILD inline void dropSignalHandlers()
{
    for (int signal = 1; signal <= kLastSignal; ++signal) {
        KernelAction action{};
        if (::syscall(SYS_rt_sigaction, signal, nullptr, &action, kSignalSetBytes) == 0 && action.handler != SIG_IGN
            && action.handler != SIG_DFL)
            (void)setDefaultAction(signal);
    }
}

} // namespace vnt::child
