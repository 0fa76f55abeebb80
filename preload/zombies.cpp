#include "preload/zombies.h"

#include <stdint.h>
#include <string.h>

#include "preload/journal.h"
#include "preload/real.h"

namespace vnt::journal {

namespace {

constexpr size_t kKept = 1u << 14;
constexpr size_t kLargestKept = 16384; // so at most 256 MiB are kept; larger blocks go at once
constexpr uint64_t kMark = 0x7a6f6d6269652121U;
constexpr uint8_t kPattern = 0x5a;

/// At the beginning of a kept block; the pattern follows.
struct Mark {
    uint64_t mark; ///< kMark, and the block's address
    uint64_t place; ///< in `kept`
};

void* kept[kKept]; // the oldest is replaced by the next
uint32_t next;

uint64_t markOf(const void* block) { return kMark ^ reinterpret_cast<uintptr_t>(block); }

bool isKept(const void* block, size_t size)
{
    Mark mark;
    if (size < sizeof mark)
        return false;
    ::memcpy(&mark, block, sizeof mark);
    return mark.mark == markOf(block) && mark.place < kKept
        && __atomic_load_n(&kept[mark.place], __ATOMIC_RELAXED) == block;
}

/// The first byte that is not as it was left; `size` when all are.
size_t firstChange(const void* block, size_t size, uint64_t place)
{
    const Mark mark{markOf(block), place};
    const auto* bytes = static_cast<const uint8_t*>(block);
    const auto* expected = reinterpret_cast<const uint8_t*>(&mark);
    for (size_t i = 0; i < sizeof mark; ++i) {
        if (bytes[i] != expected[i])
            return i;
    }
    for (size_t i = sizeof mark; i < size; ++i) {
        if (bytes[i] != kPattern)
            return i;
    }
    return size;
}

} // namespace

const void* keptBlockOf(const void* object)
{
    constexpr uint64_t kPatternWord = kPattern * 0x0101010101010101U;
    constexpr uintptr_t kPageBytes = 4096;
    const auto address = reinterpret_cast<uintptr_t>(object);
    uint64_t word = 0;
    if (address % kPageBytes > kPageBytes - sizeof word) // the caller's word is there, what follows may not be
        return nullptr;
    ::memcpy(&word, object, sizeof word);
    if (word == markOf(object))
        return isKept(object, sizeof(Mark)) ? object : nullptr;
    if (word != kPatternWord && word >= kKept) // the latter: the object began right behind the mark's first word
        return nullptr;
    const void* nearest = nullptr;
    for (void*& place : kept) {
        const void* block = __atomic_load_n(&place, __ATOMIC_RELAXED);
        if (block > nearest && block < object && address - reinterpret_cast<uintptr_t>(block) < kLargestKept)
            nearest = block;
    }
    if (word == kPatternWord)
        return nearest;
    return nearest && address - reinterpret_cast<uintptr_t>(nearest) == sizeof word
            && __atomic_load_n(&kept[word], __ATOMIC_RELAXED) == nearest
        ? nearest
        : nullptr;
}

void releaseLater(void* block, Function function, const void* frame)
{
    const size_t size = realAllocator.usableSize(block);
    if (isKept(block, size)) {
        noteSpecial(kSecondFree, block, 0, function, frame);
        return;
    }
    if (size < sizeof(Mark) || size > kLargestKept) {
        noteFree(block, function);
        realAllocator.free(block);
        return;
    }
    noteSpecial(kFreeKept, block, size, function, frame);
    const uint64_t place = __atomic_fetch_add(&next, 1, __ATOMIC_RELAXED) % kKept;
    const Mark mark{markOf(block), place};
    ::memset(block, kPattern, size);
    ::memcpy(block, &mark, sizeof mark);
    void* oldest = __atomic_exchange_n(&kept[place], block, __ATOMIC_ACQ_REL);
    if (!oldest)
        return;
    const size_t oldSize = realAllocator.usableSize(oldest);
    const size_t change = firstChange(oldest, oldSize, place);
    if (change != oldSize)
        noteSpecial(kDamaged, oldest, change, function, frame);
    realAllocator.free(oldest);
}

} // namespace vnt::journal
