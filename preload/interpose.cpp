// The C allocator's functions as the target calls them. Each calls the real one and tells the journal.

#include <errno.h>
#include <stdint.h>
#include <string.h>

#include "preload/journal.h"
#include "preload/real.h"
#include "preload/zombies.h"

#define VNT_EXPORT extern "C" __attribute__((visibility("default")))
#define VNT_FRAME __builtin_frame_address(0)

using namespace vnt;
using namespace vnt::journal;

VNT_EXPORT void* malloc(size_t size) noexcept
{
    if (!haveReal())
        return earlyAllocate(size, 1);
    void* block = realAllocator.malloc(size);
    if (block)
        noteAllocate(block, size, kMalloc, VNT_FRAME);
    return block;
}

VNT_EXPORT void* calloc(size_t count, size_t size) noexcept
{
    if (!haveReal())
        return size != 0 && count > SIZE_MAX / size ? nullptr : earlyAllocate(count * size, 1);
    void* block = realAllocator.calloc(count, size);
    if (block)
        noteAllocate(block, count * size, kCalloc, VNT_FRAME);
    return block;
}

VNT_EXPORT void free(void* block) noexcept
{
    if (!block || isEarly(block))
        return;
    if (!haveReal())
        return;
    if (keepsZombies())
        return releaseLater(block, kMalloc, VNT_FRAME);
    noteFree(block, kMalloc);
    realAllocator.free(block);
}

namespace {

/// A block of the look-up's own arena moves into the real allocator.
void* reallocateEarly(void* old, size_t size, const void* frame)
{
    if (!haveReal())
        return nullptr;
    void* block = realAllocator.malloc(size);
    if (!block)
        return nullptr;
    const size_t behind = earlyBytesBehind(old);
    ::memcpy(block, old, size < behind ? size : behind);
    noteAllocate(block, size, kRealloc, frame);
    return block;
}

void* reallocate(void* old, size_t size, const void* frame)
{
    if (old && isEarly(old))
        return reallocateEarly(old, size, frame);
    if (!haveReal())
        return earlyAllocate(size, 1);
    if (!old) {
        void* block = realAllocator.realloc(nullptr, size);
        if (block)
            noteAllocate(block, size, kRealloc, frame);
        return block;
    }
    const bool begun = noteReallocBegin(old);
    void* block = realAllocator.realloc(old, size);
    if (!block && size == 0)
        return nullptr; // libc frees then (realloc(3)), and the journal has it as freed
    noteReallocEnd(begun, block, size, frame);
    return block;
}

} // namespace

VNT_EXPORT void* realloc(void* old, size_t size) noexcept { return reallocate(old, size, VNT_FRAME); }

VNT_EXPORT void* reallocarray(void* old, size_t count, size_t size) noexcept
{
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return reallocate(old, bytes, VNT_FRAME);
}

VNT_EXPORT void* memalign(size_t alignment, size_t size) noexcept
{
    if (!haveReal())
        return earlyAllocate(size, alignment);
    void* block = realAllocator.memalign(alignment, size);
    if (block)
        noteAllocate(block, size, kAligned, VNT_FRAME);
    return block;
}

VNT_EXPORT int posix_memalign(void** result, size_t alignment, size_t size) noexcept
{
    if (!haveReal())
        return ENOMEM;
    const int error = realAllocator.posixMemalign(result, alignment, size);
    if (error == 0 && *result)
        noteAllocate(*result, size, kAligned, VNT_FRAME);
    return error;
}

VNT_EXPORT void* aligned_alloc(size_t alignment, size_t size) noexcept
{
    if (!haveReal())
        return earlyAllocate(size, alignment);
    void* block = realAllocator.alignedAlloc(alignment, size);
    if (block)
        noteAllocate(block, size, kAligned, VNT_FRAME);
    return block;
}

VNT_EXPORT void* valloc(size_t size) noexcept
{
    if (!haveReal())
        return nullptr;
    void* block = realAllocator.valloc(size);
    if (block)
        noteAllocate(block, size, kAligned, VNT_FRAME);
    return block;
}

VNT_EXPORT void* pvalloc(size_t size) noexcept
{
    if (!haveReal() || !realAllocator.pvalloc)
        return nullptr;
    void* block = realAllocator.pvalloc(size);
    if (block)
        noteAllocate(block, size, kAligned, VNT_FRAME);
    return block;
}

VNT_EXPORT size_t malloc_usable_size(void* block) noexcept
{
    if (!block || isEarly(block) || !haveReal())
        return 0;
    return realAllocator.usableSize(block);
}
