#include "preload/real.h"

#include <dlfcn.h>
#include <stdint.h>

#include "preload/redirect.h"

namespace vnt {

RealAllocator realAllocator;

namespace {

// dlsym(3) needs a few hundred bytes at most, and none on this libc.
constexpr size_t kArenaBytes = 16384;
alignas(16) char arena[kArenaBytes];
size_t arenaUsed; // threads do not exist yet when the look-up runs; the exchange below is for a signal handler
constexpr int kInTime = 1, kLate = 2;
int late; // 0: not known yet; the same answer whoever finds it
__thread bool resolving __attribute__((tls_model("initial-exec")));

template <typename Function> void find(Function& slot, const char* name)
{
    slot = reinterpret_cast<Function>(nextSymbol(name));
}

} // namespace

bool isLate()
{
    int known = __atomic_load_n(&late, __ATOMIC_RELAXED);
    if (known == 0) {
        void* first = ::dlsym(RTLD_DEFAULT, "malloc");
        known = first && !isOwnCode(first) ? kLate : kInTime;
        __atomic_store_n(&late, known, __ATOMIC_RELAXED);
    }
    return known == kLate;
}

void* nextSymbol(const char* name)
{
    if (!isLate())
        return ::dlsym(RTLD_NEXT, name);
    void* found = ::dlsym(RTLD_DEFAULT, name);
    return found && !isOwnCode(found) ? found : redirectedFunction(name);
}

bool resolveRealAllocator()
{
    if (resolving)
        return false;
    resolving = true;
    RealAllocator found{};
    find(found.free, "free");
    find(found.calloc, "calloc");
    find(found.realloc, "realloc");
    find(found.memalign, "memalign");
    find(found.posixMemalign, "posix_memalign");
    find(found.alignedAlloc, "aligned_alloc");
    find(found.valloc, "valloc");
    find(found.pvalloc, "pvalloc");
    find(found.usableSize, "malloc_usable_size");
    find(found.malloc, "malloc");
    resolving = false;
    if (!found.malloc)
        __builtin_trap(); // a process without malloc cannot have got here
    realAllocator.free = found.free;
    realAllocator.calloc = found.calloc;
    realAllocator.realloc = found.realloc;
    realAllocator.memalign = found.memalign;
    realAllocator.posixMemalign = found.posixMemalign;
    realAllocator.alignedAlloc = found.alignedAlloc;
    realAllocator.valloc = found.valloc;
    realAllocator.pvalloc = found.pvalloc;
    realAllocator.usableSize = found.usableSize;
    __atomic_store_n(&realAllocator.malloc, found.malloc, __ATOMIC_RELEASE); // last: it says that the others are there
    return true;
}

void* earlyAllocate(size_t size, size_t alignment)
{
    if (alignment < 16)
        alignment = 16;
    size_t used = __atomic_load_n(&arenaUsed, __ATOMIC_RELAXED);
    for (;;) {
        const size_t begin = (used + alignment - 1) & ~(alignment - 1);
        if (begin > kArenaBytes || size > kArenaBytes - begin)
            return nullptr;
        if (__atomic_compare_exchange_n(&arenaUsed, &used, begin + size, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            return arena + begin;
    }
}

bool isEarly(const void* block)
{
    return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(arena) < kArenaBytes;
}

size_t earlyBytesBehind(const void* block)
{
    return kArenaBytes - (reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(arena));
}

} // namespace vnt
