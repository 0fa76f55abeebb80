#include "collectors/heap/LiveBlocks.h"

namespace vnt {

uint32_t LiveBlocks::find(uint64_t address) const
{
    const uint32_t tag = tagOf(address);
    const size_t mask = _index.size() - 1;
    for (size_t at = home(address);; at = (at + 1) & mask) {
        const Entry& entry = _index[at];
        if (entry.slot == kNone)
            return kNone;
        if (entry.tag == tag && _blocks[entry.slot].address == address)
            return entry.slot;
    }
}

uint32_t LiveBlocks::add(const LiveBlock& block)
{
    uint32_t slot = 0;
    if (!_free.empty()) {
        slot = _free.back();
        _free.pop_back();
        _blocks[slot] = block;
    } else {
        if (_blocks.size() >= heap::kMaxSlots)
            return kNone;
        slot = static_cast<uint32_t>(_blocks.size());
        _blocks.push_back(block);
    }
    ++_count;
    _bytes += block.sizeBytes;
    insert(slot);
    return slot;
}

void LiveBlocks::remove(uint32_t slot)
{
    detach(slot);
    --_count;
    _bytes -= _blocks[slot].sizeBytes;
    _blocks[slot].address = kGone;
    _free.push_back(slot);
}

void LiveBlocks::attach(uint32_t slot) { insert(slot); }

/// Where the slot stands in the index; its size when it is detached.
size_t LiveBlocks::placeOf(uint32_t slot) const
{
    const size_t mask = _index.size() - 1;
    for (size_t at = home(_blocks[slot].address); _index[at].slot != kNone; at = (at + 1) & mask) {
        if (_index[at].slot == slot)
            return at;
    }
    return _index.size();
}

void LiveBlocks::detach(uint32_t slot)
{
    size_t hole = placeOf(slot);
    if (hole == _index.size())
        return;
    // Entries behind move up, so that no search ends too early and no marks of the dead are needed.
    const size_t mask = _index.size() - 1;
    for (size_t at = (hole + 1) & mask; _index[at].slot != kNone; at = (at + 1) & mask) {
        const size_t wanted = home(_blocks[_index[at].slot].address);
        if (((at - wanted) & mask) >= ((at - hole) & mask)) {
            _index[hole] = _index[at];
            hole = at;
        }
    }
    _index[hole] = {};
    --_indexed;
}

void LiveBlocks::insert(uint32_t slot)
{
    if ((_indexed + 1) * 2 > _index.size())
        grow();
    const size_t mask = _index.size() - 1;
    const uint64_t address = _blocks[slot].address;
    size_t at = home(address);
    while (_index[at].slot != kNone)
        at = (at + 1) & mask;
    _index[at] = {slot, tagOf(address)};
    ++_indexed;
}

void LiveBlocks::grow()
{
    std::vector<Entry> old(_index.size() * 2);
    old.swap(_index);
    --_shift;
    const size_t mask = _index.size() - 1;
    for (const Entry& entry : old) {
        if (entry.slot == kNone)
            continue;
        size_t at = home(_blocks[entry.slot].address);
        while (_index[at].slot != kNone)
            at = (at + 1) & mask;
        _index[at] = entry;
    }
}

void LiveBlocks::clear() { *this = LiveBlocks(); }

} // namespace vnt
