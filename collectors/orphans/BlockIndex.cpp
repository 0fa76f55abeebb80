#include "collectors/orphans/BlockIndex.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>

namespace vnt::orphans {
namespace {

constexpr unsigned kDigitBits = 11;
constexpr unsigned kDigits = 5; // 55 bits: all addresses in units of 8 bytes

struct Key {
    uint64_t address;
    uint32_t index;
};

} // namespace

BlockIndex::BlockIndex(std::vector<LiveBlock> blocks, const std::vector<Range>& mapped) : _blocks(std::move(blocks))
{
    sort();
    keepMapped(mapped);
    if (_places.empty())
        return;
    _lowest = _places.front().start;
    _span = _places.back().start + _places.back().sizeBytes - _lowest;
    fillLeaves();
}

/// By digits, least first; digits that all addresses have in common cost nothing.
void BlockIndex::sort()
{
    std::vector<Key> keys;
    keys.reserve(_blocks.size());
    std::vector<std::array<uint32_t, 1u << kDigitBits>> counts(kDigits);
    for (uint32_t i = 0; i < _blocks.size(); ++i) {
        const uint64_t address = _blocks[i].address;
        if (address >> kAddressBits != 0)
            continue; // no user's address
        keys.push_back({address, i});
        for (unsigned digit = 0; digit < kDigits; ++digit)
            ++counts[digit][(address >> (3 + digit * kDigitBits)) % (1u << kDigitBits)];
    }
    std::vector<Key> sorted(keys.size());
    for (unsigned digit = 0; digit < kDigits && !keys.empty(); ++digit) {
        const unsigned shift = 3 + digit * kDigitBits;
        auto& count = counts[digit];
        if (count[(keys.front().address >> shift) % (1u << kDigitBits)] == keys.size())
            continue;
        uint32_t before = 0;
        for (uint32_t& one : count)
            before += std::exchange(one, before);
        for (const Key& key : keys)
            sorted[count[(key.address >> shift) % (1u << kDigitBits)]++] = key;
        keys.swap(sorted);
    }
    _order.reserve(keys.size());
    for (const Key& key : keys)
        _order.push_back(key.index);
}

/// Of the blocks in order, those that are where memory is, and none that overlaps a younger one.
void BlockIndex::keepMapped(const std::vector<Range>& mapped)
{
    _places.reserve(_order.size());
    size_t kept = 0;
    size_t range = 0;
    for (const uint32_t index : _order) {
        const LiveBlock& block = _blocks[index];
        while (range < mapped.size() && mapped[range].end <= block.address)
            ++range;
        if (range == mapped.size())
            break;
        if (mapped[range].start > block.address)
            continue;
        const Place place{block.address, std::clamp<uint64_t>(block.sizeBytes, 1, mapped[range].end - block.address)};
        bool older = false;
        while (kept != 0 && _places[kept - 1].start + _places[kept - 1].sizeBytes > place.start && !older) {
            older = _blocks[_order[kept - 1]].timeNs > block.timeNs;
            if (!older) {
                _places.pop_back();
                --kept;
            }
        }
        if (older)
            continue;
        _places.push_back(place);
        _order[kept++] = index;
    }
    _order.resize(kept);
    for (const uint32_t index : _order)
        _totalBytes += _blocks[index].sizeBytes;
}

/// The granule's place; null when there is no memory for it.
uint32_t* BlockIndex::leafOf(uint64_t granule)
{
    constexpr uint64_t kGranules = kLeafBytes >> kGranuleBits;
    uint32_t*& leaf = _leaves[granule / kGranules];
    if (!leaf) {
        auto mapping = Mapping::create(kGranules * sizeof(uint32_t), PROT_READ | PROT_WRITE,
                                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (!mapping.ok())
            return nullptr; // only a target that says it has blocks all over its address space gets here
        _memory.push_back(mapping.take()); // 64 MiB of addresses; pages come with use
        leaf = static_cast<uint32_t*>(_memory.back().address());
    }
    return leaf + granule % kGranules;
}

void BlockIndex::fillLeaves()
{
    _leaves.resize(size_t{1} << (kAddressBits - kLeafBits));
    for (uint32_t block = 0; block < _places.size(); ++block) {
        if (_places[block].sizeBytes >= kLargeBytes) {
            _large.push_back(block);
            continue;
        }
        const uint64_t last = (_places[block].start + _places[block].sizeBytes - 1) >> kGranuleBits;
        for (uint64_t granule = _places[block].start >> kGranuleBits; granule <= last; ++granule) {
            uint32_t* first = leafOf(granule);
            if (first && *first == 0)
                *first = block + 1;
        }
    }
}

uint32_t BlockIndex::findLarge(uint64_t address) const
{
    const auto behind = std::upper_bound(_large.begin(), _large.end(), address, [this](uint64_t value, uint32_t block) {
        return value < _places[block].start;
    });
    if (behind == _large.begin())
        return kNone;
    const uint32_t block = *(behind - 1);
    return address - _places[block].start < _places[block].sizeBytes ? block : kNone;
}

uint32_t BlockIndex::firstEndingBehind(uint64_t address) const
{
    const auto found =
        std::upper_bound(_places.begin(), _places.end(), address,
                         [](uint64_t value, const Place& place) { return value < place.start + place.sizeBytes; });
    return static_cast<uint32_t>(found - _places.begin());
}

} // namespace vnt::orphans
