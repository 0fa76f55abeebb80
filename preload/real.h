#pragma once

#include <stddef.h>

/// The allocator that the target would have without us: the next one behind this library, libc's or another.
namespace vnt {

struct RealAllocator {
    void* (*malloc)(size_t);
    void (*free)(void*);
    void* (*calloc)(size_t, size_t);
    void* (*realloc)(void*, size_t);
    void* (*memalign)(size_t, size_t);
    int (*posixMemalign)(void**, size_t, size_t);
    void* (*alignedAlloc)(size_t, size_t);
    void* (*valloc)(size_t);
    void* (*pvalloc)(size_t);
    size_t (*usableSize)(void*);
};

extern RealAllocator realAllocator;

/// False while the functions above are still being looked up: the caller takes earlyAllocate() then.
bool resolveRealAllocator();

inline bool haveReal() { return __builtin_expect(realAllocator.malloc != nullptr, 1) || resolveRealAllocator(); }

/// A few blocks for the look-up itself, never given back. Zeroed; null when used up.
void* earlyAllocate(size_t size, size_t alignment);
/// True for such a block.
bool isEarly(const void* block);
/// Bytes from the block to the end of its arena: how much may be read of it.
size_t earlyBytesBehind(const void* block);

/// The target's own function of that symbol behind this library, or null. In a process that this library was loaded
/// into while it ran, the one that the process has used so far.
void* nextSymbol(const char* name);
/// This library came late: calls reach it only from modules that were redirected.
bool isLate();

} // namespace vnt
