#include "rumbel/view/HeapHistory.h"

#include <algorithm>

namespace vnt::view {

void HeapHistory::onAllocate(const heap::AllocateRecord& allocation)
{
    release(allocation.timeNs, allocation.slot); // its free is lost
    const size_t piece = allocation.slot / kBlocksPerPiece;
    if (piece >= _blocks.size())
        _blocks.resize(piece + 1);
    if (!_blocks[piece])
        _blocks[piece] = std::make_unique<Block[]>(kBlocksPerPiece);
    const uint32_t node = nodeOf(allocation.stack, allocation.timeNs);
    _blocks[piece][allocation.slot % kBlocksPerPiece] = {allocation.sizeBytes, allocation.timeNs, node, true};
    _liveBytes += allocation.sizeBytes;
    _curve.add(allocation.timeNs, _liveBytes);
    _grid.add(allocation.timeNs, 0, node, {1, allocation.sizeBytes, 0, 0, 0, 0});
}

void HeapHistory::release(uint64_t timeNs, uint32_t slot)
{
    const size_t piece = slot / kBlocksPerPiece;
    if (piece < _blocks.size() && _blocks[piece])
        release(timeNs, _blocks[piece][slot % kBlocksPerPiece]);
}

void HeapHistory::release(uint64_t timeNs, Block& block)
{
    if (!block.live)
        return;
    block.live = false;
    _liveBytes -= block.sizeBytes;
    _curve.add(timeNs, _liveBytes);
    _grid.add(timeNs, 0, block.node, {0, 0, 1, block.sizeBytes, 0, 0});
}

void HeapHistory::onTarget(uint64_t timeNs, const heap::TargetRecord& target)
{
    for (const auto& piece : _blocks) {
        for (size_t i = 0; piece && i < kBlocksPerPiece; ++i)
            release(timeNs, piece[i]);
    }
    _blocks.clear();
    if ((target.flags & heap::TargetRecord::kNoJournal) == 0)
        _pid = target.pid;
}

/// A stack's node in the tree: its functions from the outermost inwards, as they were at its first use.
uint32_t HeapHistory::nodeOf(uint32_t stack, uint64_t timeNs)
{
    if (stack >= _nodes.size())
        _nodes.resize(_reader.nodeCount() + 1, kUnknown); // the reader lets no larger number through
    if (_nodes[stack] != kUnknown)
        return _nodes[stack];
    _path.clear();
    for (uint32_t number = stack; number != 0; number = _reader.node(number).caller) {
        const auto& frame = _reader.node(number);
        const uint32_t symbol = frame.cut
            ? Symbolizer::kTruncated
            : _symbols.symbolizer().resolve(_pid, frame.address, timeNs, FrameRole::kReturn).symbol;
        _path.push_back(_symbols.function(symbol));
    }
    if (_path.empty())
        _path.push_back(_symbols.function(Symbolizer::kNoStack));
    uint32_t node = 0;
    for (auto function = _path.rbegin(); function != _path.rend(); ++function)
        node = _tree.child(node, *function);
    _nodes[stack] = node;
    return node;
}

void HeapHistory::finish()
{
    for (const auto& piece : _blocks) {
        for (size_t i = 0; piece && i < kBlocksPerPiece; ++i) {
            const Block& block = piece[i];
            if (block.live)
                _grid.add(block.timeNs, 0, block.node, {0, 0, 0, 0, 1, block.sizeBytes});
        }
    }
    _blocks.clear();
    std::vector<uint64_t> weights = _grid.weights(_tree.count(), kAllocatedBytes);
    const std::vector<uint64_t> blocks = _grid.weights(_tree.count(), kAllocations);
    for (size_t node = 0; node < weights.size(); ++node)
        weights[node] += blocks[node]; // blocks of no bytes count, too
    _grid.renumberNodes(_tree.prune(weights));
}

} // namespace vnt::view
