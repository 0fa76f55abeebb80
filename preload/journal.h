#pragma once

#include <stddef.h>
#include <stdint.h>

#include "records/HeapJournal.h"

/// The journal inside a target: writes what the interposed functions did into the calling thread's ring. It never
/// allocates, locks, throws or touches errno, and in a process that is not recorded every call is two loads and a
/// branch. May be called from anywhere, signal handlers and threads about to end included.
namespace vnt::journal {

/// When the library is loaded: asks the collector for the memory. Quiet without one.
void greetCollector(char** environment);
/// At the normal end of the process: gives the collector time to read the mappings, without which the addresses of a
/// program that ran for a moment only would stay numbers. Half a second at most; usually a tenth of a millisecond.
void awaitCollector();

/// After an allocation. `frame`: __builtin_frame_address(0) of the interposed function.
void noteAllocate(const void* block, size_t size, Function function, const void* frame);
/// Before the block is given back: another thread may get it at once.
void noteFree(const void* block, Function function);

/// Wakes the collector when it sleeps. Within a Presence.
void wakeCollector(Shared& shared);

/// True when freed blocks go to releaseLater().
bool keepsZombies();
/// kFreeKept, kSecondFree or kDamaged.
void noteSpecial(Kind kind, const void* block, size_t size, Function function, const void* frame);

/// True when noteCount() has an effect.
bool countsReferences();
/// Before a call that changes an object's count of references, or kCountOfFreed, see there.
void noteCount(Kind kind, const void* object, size_t count, Counting counting, const void* frame);

/// Around a reallocation of a live block. The answer of the first goes to the second; `block` null: it failed.
bool noteReallocBegin(const void* old);
void noteReallocEnd(bool begun, const void* block, size_t size, const void* frame);

} // namespace vnt::journal
