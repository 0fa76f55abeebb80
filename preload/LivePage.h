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
    uint32_t firstSession; ///< of this process: numbers below it came with a fork
    uint32_t process; ///< its id
    Shared* shared;
    Ring* rings;
    uint32_t ringCount;
    uint32_t usesTsc;
    uint32_t keepsZombies;
    uint32_t eventsMask;
};

/// Never null. A page of zeros until a collector wants to know.
extern const LivePage* live;

/// That a thread is using the session's memory. Each has a cache line of its own, and belongs to one thread until that
/// ends, over all sessions: a thread that was held up since an earlier one is seen like any other.
struct alignas(64) Presence {
    uint32_t inside;
    uint32_t owner; ///< the thread's id; 0: nobody's
};
inline constexpr uint32_t kPresences = 4 * kRings; ///< threads alive that were recorded at some time
extern Presence presences[kPresences];
/// Threads that use it and have no ring (yet).
extern uint32_t strangers;

template <typename T> T load(const T& place) { return __atomic_load_n(&place, __ATOMIC_RELAXED); }
template <typename T> void store(T& place, T value) { __atomic_store_n(&place, value, __ATOMIC_RELAXED); }

/// Within a Presence: a session goes on. What else the page says is read behind this.
inline bool isRecording(const LivePage& page) { return __atomic_load_n(&page.recording, __ATOMIC_ACQUIRE) != 0; }
/// And its collector has not told the journal to stop.
inline bool isWanted(const LivePage& page) { return load(page.shared->state) == kRecording; }

} // namespace vnt::journal
