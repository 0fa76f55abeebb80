#pragma once

#include <cstdint>
#include <vector>

#include "collectors/heap/HeapStacks.h"
#include "records/HeapJournal.h"

namespace vnt {

/// One event as a thread of the target wrote it.
struct JournalEvent {
    uint64_t ticks = 0; ///< on the journal's clock; never less than that of the event before it in its ring
    journal::Kind kind = journal::kFree;
    uint64_t address = 0;
    uint64_t sizeBytes = 0;
    uint32_t stack = 0; ///< of HeapStacks
    heap::Function function = heap::Function::kMalloc;
    heap::Counting counting = heap::Counting::kRef; ///< of kCount and kCountOfFreed
    uint32_t thread = 0; ///< likewise: the thread's id
    uint32_t ring = 0;
};

/// Reads one ring of a journal. The target can write anything there at any time: every word is read once, and checked
/// before it is used. One thread.
class RingCursor {
public:
    RingCursor(journal::Ring& ring, uint32_t number);

    /// Looks at what the journal has published since. The answer is the time up to which nothing more can come from
    /// this ring: `nowTicks`, or just before its last event while a record is being made.
    uint64_t refresh(uint64_t nowTicks);

    /// The next event, decoded; null when there is none before what refresh() saw.
    const JournalEvent* peek(HeapStacks& stacks);
    void pop() { _peeked = false; }

    /// Gives the room of what was read back to the journal.
    void release();

    [[nodiscard]] bool isDead() const { return _dead; } ///< its content made no sense: nothing more is read
    [[nodiscard]] bool isDrained() const { return !_peeked && _position == _limit; }
    [[nodiscard]] uint64_t lost() const; ///< since the ring's beginning

private:
    [[nodiscard]] uint64_t word(uint32_t offset) const
    {
        return __atomic_load_n(&_ring.words[(_position + offset) % journal::kRingWords], __ATOMIC_RELAXED);
    }
    [[nodiscard]] uint32_t available() const { return _limit - _position; }
    bool readStack(uint64_t head, HeapStacks& stacks);
    bool readEvent(uint64_t head);
    bool fail();

    journal::Ring& _ring;
    std::vector<uint32_t> _slots; ///< the ring's stack slots -> HeapStacks
    JournalEvent _event;
    uint32_t _position = 0;
    uint32_t _limit = 0;
    uint32_t _released = 0;
    bool _peeked = false;
    bool _dead = false;
};

} // namespace vnt
