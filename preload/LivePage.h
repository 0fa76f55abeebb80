#pragma once

#include <stddef.h>
#include <stdint.h>

#include "records/HeapJournal.h"

namespace vnt::journal {

/// What a fork must not inherit: the child shares the rings' memory with us and has to keep its hands off. The page is
/// wiped in the child (MADV_WIPEONFORK, madvise(2)), whichever way it was made; a vfork's child is us, and sees it.
/// The page itself is never given back, so that everybody may look at it; what it points to only within a Presence.
struct LivePage {
    uint32_t recording; ///< 0: everything below is of no interest
    uint32_t session; ///< counts the collectors that this process was recorded by
    Shared* shared;
    Ring* rings;
    uint32_t ringCount;
    uint32_t usesTsc;
    uint32_t keepsZombies;
    uint32_t eventsMask;
};

/// Never null. A page of zeros until a collector wants to know.
extern const LivePage* live;

/// That the thread which has the ring of that number is using the session's memory. Each has a cache line of its own.
struct alignas(64) Presence {
    uint32_t inside;
};
extern Presence presences[kRings];
/// Threads that use it and have no ring (yet).
extern uint32_t strangers;

template <typename T> T load(const T& place) { return __atomic_load_n(&place, __ATOMIC_RELAXED); }
template <typename T> void store(T& place, T value) { __atomic_store_n(&place, value, __ATOMIC_RELAXED); }

/// A collector that has not told the journal to stop.
inline bool isWanted(const LivePage& page) { return load(page.shared->state) == kRecording; }

} // namespace vnt::journal
