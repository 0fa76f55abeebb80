#pragma once

#include <stddef.h>
#include <stdint.h>

namespace vnt {

/// The part of a thread's stack that may be read without a fault, from the frame of the journal's caller outwards.
struct StackMemory {
    uintptr_t low = 0;
    uintptr_t high = 0;
    uintptr_t shift = 0; ///< add to an address to read it: not 0 when the memory is a copy

    [[nodiscard]] bool holds(uintptr_t address) const
    {
        return address - low < high - low && high - address >= sizeof(uintptr_t) && address % sizeof(uintptr_t) == 0;
    }
    [[nodiscard]] uintptr_t read(uintptr_t address) const
    {
        return *reinterpret_cast<const uintptr_t*>(address + shift);
    }
};

/// What is known of the calling thread's stack. Found without libc's thread functions: they lock and allocate.
class StackRange {
public:
    /// For the thread that calls; two system calls at most.
    void find(bool isMainThread);

    /// Memory readable from `address`, a place on the stack in use. Usually two comparisons. A stack that grew is
    /// probed page by page once (some microseconds); one of another origin (a coroutine's, a signal's) is copied
    /// into `copy` each time (about a microsecond).
    StackMemory memoryFrom(uintptr_t address, void* copy, size_t copyBytes)
    {
        if (__builtin_expect(address - _low < _high - _low, 1))
            return {address, _high, 0};
        return elsewhere(address, copy, copyBytes);
    }

private:
    StackMemory elsewhere(uintptr_t address, void* copy, size_t copyBytes);
    bool extendTo(uintptr_t address);

    uintptr_t _low;
    uintptr_t _high;
};

} // namespace vnt
