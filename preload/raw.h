#pragma once

#include <stdint.h>
#include <sys/syscall.h>

/// System calls without libc: they leave errno alone, are no cancellation points, and may be made anywhere.
/// Answers are the kernel's: a negated errno on failure.
namespace vnt::raw {

#if defined(__x86_64__)
inline long call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0)
{
    long result;
    register long r10 __asm__("r10") = d;
    register long r8 __asm__("r8") = e;
    register long r9 __asm__("r9") = f;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
    return result;
}
#else
inline long call(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0, long f = 0)
{
    // ebp holds the sixth argument: the frame pointer is saved around the call.
    long arguments[2] = {a, f};
    long result;
    __asm__ volatile("pushl %%ebp\n\tpushl %%ebx\n\t"
                     "movl 4(%%ebx), %%ebp\n\tmovl (%%ebx), %%ebx\n\t"
                     "int $0x80\n\t"
                     "popl %%ebx\n\tpopl %%ebp"
                     : "=a"(result)
                     : "a"(number), "b"(arguments), "c"(b), "d"(c), "S"(d), "D"(e)
                     : "memory");
    return result;
}
#endif

template <typename T> inline long argument(T* pointer) { return reinterpret_cast<long>(pointer); }
inline bool failed(long result) { return result < 0 && result > -4096; }

} // namespace vnt::raw
