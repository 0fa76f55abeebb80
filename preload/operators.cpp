// operator new and delete, all forms, by their symbols: this library knows no C++ runtime. Where the forms behind us
// are the C++ library's own, which only call malloc and free, they are cut short, so that a block's stack begins with
// the caller of new. A program's or another library's own forms are called as if we were not there.

#include <dlfcn.h>
#include <string.h>

#include "preload/journal.h"
#include "preload/real.h"
#include "preload/zombies.h"

using namespace vnt;
using namespace vnt::journal;

#ifdef __x86_64__
#define VNT_SIZE "m" // size_t in a mangled name
#else
#define VNT_SIZE "j"
#endif
#define VNT_SYMBOL(name) __asm__(name) __attribute__((visibility("default")))

namespace {

enum class Behind : int { kUnknown, kPlain, kForeign };
Behind behind = Behind::kUnknown; // what stands behind us; the same answer whoever finds it

/// Whether the next `operator new` is the C++ library's, or there is none (yet). One of the library that the allocator
/// comes from is as plain: it does what its malloc does.
bool isPlain()
{
    Behind known = __atomic_load_n(&behind, __ATOMIC_RELAXED);
    if (__builtin_expect(known == Behind::kUnknown, 0)) {
        Dl_info info{};
        void* next = isLate() ? nullptr : nextSymbol("_Znw" VNT_SIZE); // only plain ones are redirected
        Dl_info allocator{};
        const bool foreign = next && ::dladdr(next, &info) != 0 && info.dli_fname
            && !::strstr(info.dli_fname, "libstdc++") && !::strstr(info.dli_fname, "libc++")
            && (::dladdr(reinterpret_cast<void*>(realAllocator.malloc), &allocator) == 0
                || allocator.dli_fbase != info.dli_fbase);
        known = foreign ? Behind::kForeign : Behind::kPlain;
        __atomic_store_n(&behind, known, __ATOMIC_RELAXED);
    }
    return known == Behind::kPlain;
}

/// The next function of that symbol, found once. A missing one ends the program as an uncaught exception would.
template <typename Function> Function nextForm(Function& found, const char* symbol)
{
    Function function = __atomic_load_n(&found, __ATOMIC_RELAXED);
    if (!function) {
        function = reinterpret_cast<Function>(nextSymbol(symbol));
        if (!function)
            __builtin_trap();
        __atomic_store_n(&found, function, __ATOMIC_RELAXED);
    }
    return function;
}

void* allocatePlain(size_t size, Function function, const void* frame)
{
    if (!haveReal())
        return earlyAllocate(size, 1);
    void* block = realAllocator.malloc(size == 0 ? 1 : size);
    if (block)
        noteAllocate(block, size, function, frame);
    return block;
}

void* allocateAligned(size_t size, size_t alignment, Function function, const void* frame)
{
    if (!haveReal())
        return earlyAllocate(size, alignment);
    void* block = realAllocator.memalign(alignment, size == 0 ? 1 : size);
    if (block)
        noteAllocate(block, size, function, frame);
    return block;
}

void release(void* block, Function function, const void* frame)
{
    if (!block || isEarly(block) || !haveReal())
        return;
    if (keepsZombies())
        return releaseLater(block, function, frame);
    noteFree(block, function);
    realAllocator.free(block);
}

} // namespace

// When memory is short the C++ library's form does what the standard asks: new-handlers, then std::bad_alloc.
#define VNT_NEW(name, function, symbol)                                                                                \
    void* name(size_t size) VNT_SYMBOL(symbol);                                                                        \
    void* name(size_t size)                                                                                            \
    {                                                                                                                  \
        void* block = isPlain() ? allocatePlain(size, function, __builtin_frame_address(0)) : nullptr;                 \
        static void* (*next)(size_t);                                                                                  \
        return block ? block : nextForm(next, symbol)(size);                                                           \
    }
#define VNT_NEW_NOTHROW(name, function, symbol)                                                                        \
    void* name(size_t size, const void* tag) VNT_SYMBOL(symbol);                                                       \
    void* name(size_t size, const void* tag)                                                                           \
    {                                                                                                                  \
        void* block = isPlain() ? allocatePlain(size, function, __builtin_frame_address(0)) : nullptr;                 \
        static void* (*next)(size_t, const void*);                                                                     \
        return block ? block : nextForm(next, symbol)(size, tag);                                                      \
    }
#define VNT_NEW_ALIGNED(name, function, symbol)                                                                        \
    void* name(size_t size, size_t alignment) VNT_SYMBOL(symbol);                                                      \
    void* name(size_t size, size_t alignment)                                                                          \
    {                                                                                                                  \
        void* block = isPlain() ? allocateAligned(size, alignment, function, __builtin_frame_address(0)) : nullptr;    \
        static void* (*next)(size_t, size_t);                                                                          \
        return block ? block : nextForm(next, symbol)(size, alignment);                                                \
    }
#define VNT_NEW_ALIGNED_NOTHROW(name, function, symbol)                                                                \
    void* name(size_t size, size_t alignment, const void* tag) VNT_SYMBOL(symbol);                                     \
    void* name(size_t size, size_t alignment, const void* tag)                                                         \
    {                                                                                                                  \
        void* block = isPlain() ? allocateAligned(size, alignment, function, __builtin_frame_address(0)) : nullptr;    \
        static void* (*next)(size_t, size_t, const void*);                                                             \
        return block ? block : nextForm(next, symbol)(size, alignment, tag);                                           \
    }
#define VNT_DELETE(name, function, symbol)                                                                             \
    void name(void* block) VNT_SYMBOL(symbol);                                                                         \
    void name(void* block)                                                                                             \
    {                                                                                                                  \
        static void (*next)(void*);                                                                                    \
        isPlain() ? release(block, function, __builtin_frame_address(0)) : nextForm(next, symbol)(block);              \
    }
// `detail`: the size, the alignment or the nothrow tag.
#define VNT_DELETE_1(name, function, symbol)                                                                           \
    void name(void* block, size_t detail) VNT_SYMBOL(symbol);                                                          \
    void name(void* block, size_t detail)                                                                              \
    {                                                                                                                  \
        static void (*next)(void*, size_t);                                                                            \
        isPlain() ? release(block, function, __builtin_frame_address(0)) : nextForm(next, symbol)(block, detail);      \
    }
#define VNT_DELETE_2(name, function, symbol)                                                                           \
    void name(void* block, size_t first, size_t second) VNT_SYMBOL(symbol);                                            \
    void name(void* block, size_t first, size_t second)                                                                \
    {                                                                                                                  \
        static void (*next)(void*, size_t, size_t);                                                                    \
        isPlain() ? release(block, function, __builtin_frame_address(0))                                               \
                  : nextForm(next, symbol)(block, first, second);                                                      \
    }

#define VNT_ALIGNMENT "St11align_val_t"
#define VNT_NOTHROW "RKSt9nothrow_t"

VNT_NEW(newOne, kOperator, "_Znw" VNT_SIZE)
VNT_NEW(newMany, kOperatorArray, "_Zna" VNT_SIZE)
VNT_NEW_NOTHROW(newOneNoThrow, kOperator, "_Znw" VNT_SIZE VNT_NOTHROW)
VNT_NEW_NOTHROW(newManyNoThrow, kOperatorArray, "_Zna" VNT_SIZE VNT_NOTHROW)
VNT_NEW_ALIGNED(newOneAligned, kOperator, "_Znw" VNT_SIZE VNT_ALIGNMENT)
VNT_NEW_ALIGNED(newManyAligned, kOperatorArray, "_Zna" VNT_SIZE VNT_ALIGNMENT)
VNT_NEW_ALIGNED_NOTHROW(newOneAlignedNoThrow, kOperator, "_Znw" VNT_SIZE VNT_ALIGNMENT VNT_NOTHROW)
VNT_NEW_ALIGNED_NOTHROW(newManyAlignedNoThrow, kOperatorArray, "_Zna" VNT_SIZE VNT_ALIGNMENT VNT_NOTHROW)

VNT_DELETE(deleteOne, kOperator, "_ZdlPv")
VNT_DELETE(deleteMany, kOperatorArray, "_ZdaPv")
VNT_DELETE_1(deleteOneSized, kOperator, "_ZdlPv" VNT_SIZE)
VNT_DELETE_1(deleteManySized, kOperatorArray, "_ZdaPv" VNT_SIZE)
VNT_DELETE_1(deleteOneNoThrow, kOperator, "_ZdlPv" VNT_NOTHROW)
VNT_DELETE_1(deleteManyNoThrow, kOperatorArray, "_ZdaPv" VNT_NOTHROW)
VNT_DELETE_1(deleteOneAligned, kOperator, "_ZdlPv" VNT_ALIGNMENT)
VNT_DELETE_1(deleteManyAligned, kOperatorArray, "_ZdaPv" VNT_ALIGNMENT)
VNT_DELETE_2(deleteOneSizedAligned, kOperator, "_ZdlPv" VNT_SIZE VNT_ALIGNMENT)
VNT_DELETE_2(deleteManySizedAligned, kOperatorArray, "_ZdaPv" VNT_SIZE VNT_ALIGNMENT)
VNT_DELETE_2(deleteOneAlignedNoThrow, kOperator, "_ZdlPv" VNT_ALIGNMENT VNT_NOTHROW)
VNT_DELETE_2(deleteManyAlignedNoThrow, kOperatorArray, "_ZdaPv" VNT_ALIGNMENT VNT_NOTHROW)
