#pragma once

#include <array>
#include <cstring>
#include <vector>

#include "collectors/orphans/BlockIndex.h"
#include "collectors/orphans/MemoryImage.h"
#include "collectors/orphans/RootFinder.h"

namespace vnt::orphans {

/// Calls `visit(uint64_t word)` for each aligned word of the target's width in `range` that could point into a block.
/// The bytes that were there to look at.
template <typename Visit>
uint64_t forEachCandidate(const BlockIndex& blocks, MemoryImage& image, const Range& range, unsigned widthBytes,
                          Visit&& visit)
{
    uint64_t looked = 0;
    uint64_t at = (range.start + widthBytes - 1) / widthBytes * widthBytes;
    while (at + widthBytes <= range.end) {
        uint64_t skipped = 0;
        const auto bytes = image.view(at, range.end - at, skipped);
        if (bytes.size() < widthBytes)
            break;
        at += skipped;
        const size_t size = bytes.size() / widthBytes * widthBytes;
        for (size_t i = 0; i < size; i += widthBytes) {
            uint64_t word = 0;
            if (widthBytes == 8) {
                std::memcpy(&word, bytes.data() + i, 8);
            } else {
                uint32_t half = 0;
                std::memcpy(&half, bytes.data() + i, 4);
                word = half;
            }
            if (blocks.mayHold(word))
                visit(word);
        }
        at += size;
        looked += size;
    }
    return looked;
}

/// Which blocks can be reached from the roots. Every word that holds an address within a block counts as a pointer to
/// it. Cost: the memory is read once, 3 to 5 GB/s where there are few pointers; a pointer to a block costs 20 to 150
/// ns.
class Reachability {
public:
    Reachability(const BlockIndex& blocks, MemoryImage& image, unsigned widthBytes);

    void addBlock(uint32_t block); ///< reachable whatever points to it
    /// The bytes of them that were there to look at.
    uint64_t addRoots(const Roots& roots);
    [[nodiscard]] bool isReached(uint32_t block) const { return _reached[block] != 0; }

private:
    void addCandidate(uint64_t word)
    {
        _candidates[_candidateCount++] = word;
        if (_candidateCount == _candidates.size())
            resolveCandidates();
    }
    void resolveCandidates();
    void fetchAhead();
    void follow();

    const BlockIndex& _blocks;
    MemoryImage& _image;
    const unsigned _width;
    std::vector<uint8_t> _reached;
    std::vector<uint32_t> _found; ///< reached, in that order
    size_t _followed = 0; ///< of these, how many were looked through
    /// Looked up together, so that the memory of one is fetched while another is waited for.
    std::array<uint64_t, 64> _candidates{};
    size_t _candidateCount = 0;
};

} // namespace vnt::orphans
