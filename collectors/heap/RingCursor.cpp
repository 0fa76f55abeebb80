#include "collectors/heap/RingCursor.h"

#include <span>

namespace vnt {

using namespace journal;

RingCursor::RingCursor(Ring& ring, uint32_t number) : _ring(ring) { _event.ring = number; }

uint64_t RingCursor::refresh(uint64_t nowTicks)
{
    if (_dead)
        return nowTicks;
    // The order matters: a record finished between the two readings is in front of the head that is read second.
    const bool busy = __atomic_load_n(&_ring.header.busy, __ATOMIC_ACQUIRE) != 0;
    const uint32_t head = __atomic_load_n(&_ring.header.head, __ATOMIC_ACQUIRE); // pairs with the journal's release
    if (head - _position > kRingWords || head - _position < _limit - _position) {
        (void)fail();
        return nowTicks;
    }
    _limit = head;
    if (!busy)
        return nowTicks;
    const uint64_t last = __atomic_load_n(&_ring.header.lastTime, __ATOMIC_RELAXED);
    return last == 0 ? 0 : last - 1; // it may already be that of the record being made
}

bool RingCursor::fail()
{
    _dead = true;
    _peeked = false;
    _limit = _position;
    return false;
}

const JournalEvent* RingCursor::peek(HeapStacks& stacks)
{
    while (!_peeked && available() != 0) {
        const uint64_t head = word(0);
        if ((head & 0xf) == kThread) {
            _event.thread = static_cast<uint32_t>(head >> 4);
            ++_position;
            continue;
        }
        const bool sound = (head & 0xf) == kStack ? readStack(head, stacks) : readEvent(head);
        if (!sound)
            return nullptr;
    }
    return _peeked ? &_event : nullptr;
}

bool RingCursor::readStack(uint64_t head, HeapStacks& stacks)
{
    const auto frames = static_cast<uint32_t>((head >> 8) & 0xff);
    const auto slot = static_cast<uint32_t>((head >> 16) & 0xffff);
    if (frames > kMaxFrames || slot >= kStackSlots || available() < 1 + frames)
        return fail();
    uint64_t addresses[kMaxFrames];
    for (uint32_t i = 0; i < frames; ++i)
        addresses[i] = word(1 + i);
    if (_slots.empty())
        _slots.resize(kStackSlots);
    _slots[slot] = stacks.intern(std::span(addresses, frames), (head & 0x10) != 0);
    _position += 1 + frames;
    return true;
}

bool RingCursor::readEvent(uint64_t head)
{
    const auto kind = static_cast<Kind>(head & 0xf);
    const bool counts = kind == kCount || kind == kCountOfFreed;
    const bool allocates = counts || kind == kAllocate || (kind >= kReallocEnd && kind <= kDamaged); // by its layout
    if (!allocates && kind != kFree && kind != kReallocBegin)
        return fail();
    const uint32_t words = allocates ? kAllocateWords : kFreeWords;
    if (available() < words)
        return fail(); // a record is published whole
    const uint64_t place = word(1);
    const uint64_t sized = allocates ? word(2) : 0;
    const uint64_t ticks = head >> 4;
    _event.ticks = ticks > _event.ticks ? ticks : _event.ticks;
    _event.kind = kind;
    _event.address = place & kLowMask;
    _event.sizeBytes = sized & kLowMask;
    const auto high = static_cast<uint32_t>(place >> kLowBits);
    const auto function = allocates ? static_cast<uint32_t>(sized >> kLowBits) : high;
    if (counts && function >= heap::kCountings)
        return fail();
    _event.counting = counts ? static_cast<heap::Counting>(function) : heap::Counting::kRef;
    _event.function = function < heap::kFunctions ? static_cast<heap::Function>(function) : heap::Function::kMalloc;
    _event.stack = allocates && high < _slots.size() ? _slots[high] : 0;
    _position += words;
    _peeked = true;
    return true;
}

void RingCursor::release()
{
    if (_position == _released)
        return;
    _released = _position;
    __atomic_store_n(&_ring.header.tail, _position, __ATOMIC_RELEASE); // release; our reads come before the reuse
}

uint64_t RingCursor::lost() const { return __atomic_load_n(&_ring.header.lost, __ATOMIC_RELAXED); }

} // namespace vnt
