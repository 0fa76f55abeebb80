#include "collectors/orphans/Reachability.h"

#include <algorithm>

namespace vnt::orphans {
namespace {

// Blocks lie anywhere: what will be looked through soon is on its way while others are.
constexpr size_t kPlacesAhead = 24;
constexpr size_t kContentsAhead = 12;
constexpr uint64_t kFetchedBytes = 256; // beyond, the processor notices by itself
constexpr uint64_t kCacheLineBytes = 64;

} // namespace

Reachability::Reachability(const BlockIndex& blocks, MemoryImage& image, unsigned widthBytes)
    : _blocks(blocks),
      _image(image),
      _width(widthBytes),
      _reached(blocks.count())
{
}

void Reachability::addBlock(uint32_t block)
{
    if (_reached[block] != 0)
        return;
    _reached[block] = 1;
    _found.push_back(block);
}

void Reachability::resolveCandidates()
{
    std::array<const uint32_t*, 64> slots;
    std::array<uint32_t, 64> found;
    const size_t count = _candidateCount;
    for (size_t i = 0; i < count; ++i) {
        slots[i] = _blocks.slotOf(_candidates[i]);
        __builtin_prefetch(slots[i]);
    }
    for (size_t i = 0; i < count; ++i) {
        found[i] = *slots[i];
        __builtin_prefetch(_blocks.firstPlace(found[i]));
    }
    for (size_t i = 0; i < count; ++i) {
        found[i] = _blocks.findFrom(found[i], _candidates[i]);
        if (found[i] != BlockIndex::kNone)
            __builtin_prefetch(&_reached[found[i]]);
    }
    for (size_t i = 0; i < count; ++i) {
        if (found[i] != BlockIndex::kNone)
            addBlock(found[i]);
    }
    _candidateCount = 0;
}

void Reachability::fetchAhead()
{
    if (_followed + kPlacesAhead < _found.size())
        __builtin_prefetch(&_blocks.place(_found[_followed + kPlacesAhead]));
    if (_followed + kContentsAhead >= _found.size())
        return;
    const BlockIndex::Place& next = _blocks.place(_found[_followed + kContentsAhead]);
    for (uint64_t at = 0; at < std::min(next.sizeBytes, kFetchedBytes); at += kCacheLineBytes)
        _image.prefetch(next.start + at);
}

void Reachability::follow()
{
    for (;;) {
        if (_followed == _found.size()) {
            resolveCandidates();
            if (_followed == _found.size())
                return;
        }
        fetchAhead();
        const BlockIndex::Place place = _blocks.place(_found[_followed++]);
        forEachCandidate(_blocks, _image, {place.start, place.start + place.sizeBytes}, _width,
                         [this](uint64_t word) { addCandidate(word); });
    }
}

uint64_t Reachability::addRoots(const Roots& roots)
{
    if (_blocks.count() == 0)
        return 0;
    uint64_t looked = 0;
    for (const uint64_t word : roots.words) {
        if (_blocks.mayHold(word))
            addCandidate(word);
    }
    for (const Range& range : roots.ranges)
        looked += forEachCandidate(_blocks, _image, range, _width, [this](uint64_t word) { addCandidate(word); });
    for (const Range& range : roots.allocatorLists) {
        looked += forEachCandidate(_blocks, _image, range, _width, [this](uint64_t word) {
            const uint32_t block = _blocks.find(word);
            if (block == BlockIndex::kNone)
                return;
            const auto& place = _blocks.place(block);
            const bool isNextHeader =
                place.sizeBytes > _width && word % (2 * _width) == 0 && word + _width >= place.start + place.sizeBytes;
            if (!isNextHeader)
                addBlock(block);
        });
    }
    follow();
    return looked;
}

} // namespace vnt::orphans
