#include "preload/StackMemory.h"

#include <sys/resource.h>
#include <sys/uio.h>

#include "preload/raw.h"

/// Where the kernel put the first thread's stack; from the dynamic loader.
extern "C" void* __libc_stack_end __attribute__((weak));

namespace vnt {

namespace {

constexpr uintptr_t kPageBytes = 4096;
constexpr size_t kPagesAtOnce = 16;
/// A larger stack is taken for another one.
constexpr uintptr_t kMaxThreadStack = uintptr_t{64} << 20;
/// The kernel keeps at least this much below the first thread's stack free of other mappings (mmap_base()).
constexpr uintptr_t kMainStackRoom = uintptr_t{64} << 20;
#ifdef __x86_64__
constexpr uintptr_t kLargestMainStack = uintptr_t{1} << 30;
#else
constexpr uintptr_t kLargestMainStack = kMainStackRoom;
#endif

/// Bytes of [from, from + size) that can be read, copied to `to`.
size_t copyOwnMemory(void* to, uintptr_t from, size_t size)
{
    iovec local{to, size};
    iovec remote{reinterpret_cast<void*>(from), size};
    const long self = raw::call(SYS_getpid);
    const long read = raw::call(SYS_process_vm_readv, self, raw::argument(&local), 1, raw::argument(&remote), 1, 0);
    return raw::failed(read) ? 0 : static_cast<size_t>(read);
}

} // namespace

void StackRange::find(bool isMainThread)
{
    if (!isMainThread || !&__libc_stack_end) {
        // libc puts a thread's control block at the upper end of its stack, also of one that the program supplied.
        _high = reinterpret_cast<uintptr_t>(__builtin_thread_pointer());
        _low = _high;
        return;
    }
    _high = (reinterpret_cast<uintptr_t>(__libc_stack_end) + kPageBytes) & ~(kPageBytes - 1);
    uintptr_t room = kMainStackRoom;
    struct {
        uint64_t soft;
        uint64_t hard;
    } limit{}; // struct rlimit64 of prlimit64(2), both widths
    if (!raw::failed(raw::call(SYS_prlimit64, 0, RLIMIT_STACK, 0, raw::argument(&limit))) && limit.soft > room)
        room = limit.soft < kLargestMainStack ? static_cast<uintptr_t>(limit.soft) : kLargestMainStack;
    _low = _high - room;
}

StackMemory StackRange::elsewhere(uintptr_t address, void* copy, size_t copyBytes)
{
    if (address < _low && _low - address < kMaxThreadStack && extendTo(address))
        return {address, _high, 0};
    const size_t copied = copyOwnMemory(copy, address, copyBytes);
    return {address, address + copied, reinterpret_cast<uintptr_t>(copy) - address};
}

/// Every page down to `address` is readable: then it is this stack, as a guard page lies between two.
bool StackRange::extendTo(uintptr_t address)
{
    const uintptr_t wanted = address & ~(kPageBytes - 1);
    uintptr_t reached = _low & ~(kPageBytes - 1);
    while (reached > wanted) {
        iovec remote[kPagesAtOnce];
        char bytes[kPagesAtOnce];
        size_t pages = 0;
        while (pages < kPagesAtOnce && reached > wanted) {
            reached -= kPageBytes;
            remote[pages++] = {reinterpret_cast<void*>(reached), 1};
        }
        iovec local{bytes, pages};
        const long self = raw::call(SYS_getpid);
        if (raw::call(SYS_process_vm_readv, self, raw::argument(&local), 1, raw::argument(remote),
                      static_cast<long>(pages), 0)
            != static_cast<long>(pages))
            return false;
    }
    _low = wanted;
    return true;
}

} // namespace vnt
