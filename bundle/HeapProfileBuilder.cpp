#include "bundle/HeapProfileBuilder.h"

#include <algorithm>
#include <bit>

namespace vnt {

void HeapProfileBuilder::add(std::span<const std::byte> message)
{
    _bytesRead += message.size();
    const Status status = _reader.read(message, *this);
    if (status.ok())
        return;
    ++_totals.damagedMessages;
    _remarks.add(status.message());
}

void HeapProfileBuilder::noteTime(uint64_t timeNs)
{
    if (_totals.firstTimeNs == 0)
        _totals.firstTimeNs = timeNs;
    _totals.lastTimeNs = std::max(_totals.lastTimeNs, timeNs);
}

HeapProfileBuilder::Block* HeapProfileBuilder::block(uint32_t slot)
{
    const size_t piece = slot / kBlocksPerPiece;
    if (piece >= _blocks.size())
        _blocks.resize(piece + 1);
    if (!_blocks[piece]) {
        if (_pieces >= kFreePieces + _bytesRead / kBytesPerPiece)
            return nullptr;
        ++_pieces;
        _blocks[piece] = std::make_unique<Block[]>(kBlocksPerPiece);
    }
    return &_blocks[piece][slot % kBlocksPerPiece];
}

HeapProfileBuilder::Block* HeapProfileBuilder::knownBlock(uint32_t slot)
{
    const size_t piece = slot / kBlocksPerPiece;
    if (piece >= _blocks.size() || !_blocks[piece])
        return nullptr;
    Block& known = _blocks[piece][slot % kBlocksPerPiece];
    return known.live ? &known : nullptr;
}

HeapProfileBuilder::StackCounts& HeapProfileBuilder::countsOf(uint32_t stack)
{
    if (stack >= _stacks.size())
        _stacks.resize(_reader.nodeCount() + 1); // the reader lets no larger number through
    return _stacks[stack];
}

void HeapProfileBuilder::onAllocate(const heap::AllocateRecord& allocation)
{
    if (!_options.span.contains(allocation.timeNs))
        return;
    noteTime(allocation.timeNs);
    Block* place = block(allocation.slot);
    if (!place) {
        _remarks.add("allocations whose numbers make no sense are left out");
        return;
    }
    if (place->live)
        release(*place); // its free is lost
    *place = {allocation.address, allocation.sizeBytes, allocation.stack, true};
    StackCounts& stack = countsOf(allocation.stack);
    if (stack.counts.allocations == 0) {
        stack.firstTimeNs = allocation.timeNs;
        stack.pid = _totals.pid;
    }
    for (HeapCounts* counts : {&stack.counts, &_totals.all}) {
        ++counts->allocations;
        counts->bytes += allocation.sizeBytes;
        ++counts->liveBlocks;
        counts->liveBytes += allocation.sizeBytes;
    }
    if (_totals.all.liveBytes > _totals.peakBytes) {
        _totals.peakBytes = _totals.all.liveBytes;
        _totals.peakTimeNs = allocation.timeNs;
    }
    ++_totals.bySize[std::min<size_t>(static_cast<size_t>(std::bit_width(allocation.sizeBytes)), kHeapSizeClasses - 1)];
    ++_totals.byFunction[static_cast<size_t>(allocation.function)];
    _lastSlot = allocation.slot;
}

void HeapProfileBuilder::release(Block& block)
{
    for (HeapCounts* counts : {&countsOf(block.stack).counts, &_totals.all}) {
        --counts->liveBlocks;
        counts->liveBytes -= block.sizeBytes;
    }
    block.live = false;
    _counts.onFree(block.address);
}

void HeapProfileBuilder::onFree(uint64_t timeNs, heap::Function /*function*/, uint32_t slot)
{
    if (!_options.span.contains(timeNs))
        return;
    noteTime(timeNs);
    ++_totals.frees;
    Block* freed = knownBlock(slot);
    if (!freed) {
        ++_totals.unknownFrees;
        return;
    }
    if (slot == _lastSlot) {
        ++countsOf(freed->stack).counts.temporary;
        ++_totals.all.temporary;
        _lastSlot = heap::kMaxSlots;
    }
    release(*freed);
}

void HeapProfileBuilder::onFreeUnknown(uint64_t timeNs, heap::Function /*function*/, uint64_t address)
{
    if (!_options.span.contains(timeNs))
        return;
    _counts.onFree(address);
    noteTime(timeNs);
    ++_totals.frees;
    ++_totals.unknownFrees;
}

void HeapProfileBuilder::onFreedOutside(uint64_t timeNs, uint32_t slot)
{
    if (!_options.span.contains(timeNs))
        return;
    noteTime(timeNs);
    if (Block* freed = knownBlock(slot))
        release(*freed);
}

void HeapProfileBuilder::onTarget(uint64_t timeNs, const heap::TargetRecord& target)
{
    if (timeNs >= _options.span.untilNs)
        return;
    if (_options.span.contains(timeNs))
        noteTime(timeNs);
    for (const auto& piece : _blocks) {
        for (size_t i = 0; piece && i < kBlocksPerPiece; ++i) {
            if (piece[i].live)
                release(piece[i]);
        }
    }
    _blocks.clear();
    _counts.onProgram();
    _look = {};
    _pieces = 0;
    _lastSlot = heap::kMaxSlots;
    _totals.lostTarget = (target.flags & heap::TargetRecord::kNoJournal) != 0;
    if (_totals.lostTarget)
        return;
    _totals.pid = target.pid;
    _totals.is32Bit = (target.flags & heap::TargetRecord::k32Bit) != 0;
    _totals.attached = (target.flags & heap::TargetRecord::kAttached) != 0;
    _totals.targetName = target.name;
}

void HeapProfileBuilder::onNoTarget(uint64_t timeNs)
{
    if (_options.span.contains(timeNs))
        noteTime(timeNs);
    _totals.noTarget = true;
}

void HeapProfileBuilder::onExit(uint64_t timeNs, uint32_t /*pid*/)
{
    if (_options.span.contains(timeNs))
        noteTime(timeNs);
}

void HeapProfileBuilder::onLost(uint64_t /*timeNs*/, heap::LostCause cause, uint64_t newly, uint64_t /*total*/)
{
    _totals.lostByCause[static_cast<size_t>(cause)] += newly;
}

void HeapProfileBuilder::onCost(uint64_t /*timeNs*/, uint64_t cpuNs, uint64_t /*events*/)
{
    _totals.recorderCpuNs = cpuNs;
}

void HeapProfileBuilder::onMissingMessages(uint64_t count) { _totals.missingMessages += count; }

void HeapProfileBuilder::onFault(uint64_t timeNs, const heap::FaultRecord& fault)
{
    if (!_options.span.contains(timeNs))
        return;
    noteTime(timeNs);
    if (++_totals.faults <= HeapFault::kMaxKept)
        _faults.push_back({fault, timeNs, _totals.pid});
}

void HeapProfileBuilder::onCount(uint64_t timeNs, const heap::CountRecord& count)
{
    if (!_options.span.contains(timeNs))
        return;
    noteTime(timeNs);
    _counts.add(timeNs, _totals.pid, count);
}

void HeapProfileBuilder::onClassLook(uint64_t timeNs, uint64_t blocks, uint64_t bytes)
{
    if (!_options.span.contains(timeNs)) {
        _look.wanted = false;
        return;
    }
    noteTime(timeNs);
    _look = {true, timeNs, blocks, bytes, {}};
}

void HeapProfileBuilder::onClass(uint64_t /*timeNs*/, const heap::ClassRecord& record)
{
    if (_look.wanted && _look.classes.size() < ClassLook::kMaxClasses)
        _look.classes.push_back(record);
}

/// Blocks that begin with an address in no virtual table are no objects, or of a class that the file does not name.
HeapClasses HeapProfileBuilder::namedClasses()
{
    HeapClasses result{_look.timeNs != 0, _look.blocks, _look.bytes, {}};
    std::unordered_map<std::string_view, size_t> indexes; // a class may have a table in each of several modules
    for (const heap::ClassRecord& record : _look.classes) {
        const std::string_view name = _symbolizer.className(_totals.pid, record.table, record.code, _look.timeNs);
        if (name.empty())
            continue;
        const auto [found, added] = indexes.emplace(name, result.classes.size());
        if (added)
            result.classes.push_back({std::string(name), 0, 0});
        result.classes[found->second].blocks += record.blocks;
        result.classes[found->second].bytes += record.bytes;
    }
    std::sort(result.classes.begin(), result.classes.end(), [](const HeapClass& a, const HeapClass& b) {
        return a.bytes != b.bytes ? a.bytes > b.bytes : a.name < b.name;
    });
    return result;
}

/// The stack's functions, innermost first.
std::vector<uint32_t> HeapProfileBuilder::pathOf(uint32_t stack, uint32_t pid, uint64_t timeNs)
{
    std::vector<uint32_t> path;
    for (uint32_t node = stack; node != 0 && path.size() <= HeapSite::kMaxCallers; node = _reader.node(node).caller) {
        const auto& frame = _reader.node(node);
        if (frame.cut) {
            path.push_back(Symbolizer::kTruncated);
            continue;
        }
        if (_options.detail == ReadingOptions::Detail::kLine) {
            for (const SourceFrame& each : _symbolizer.frames(pid, frame.address, timeNs, FrameRole::kReturn))
                path.push_back(_symbolizer.lineLabel(each));
            continue;
        }
        const uint32_t symbol = _symbolizer.resolve(pid, frame.address, timeNs, FrameRole::kReturn).symbol;
        if (_options.detail == ReadingOptions::Detail::kFunction)
            path.push_back(symbol);
        else if (path.empty() || path.back() != _symbolizer.moduleLabel(symbol))
            path.push_back(_symbolizer.moduleLabel(symbol));
    }
    return path;
}

/// The site of the stack's innermost function; its heaviest path is replaced when this stack allocated more.
HeapSite& HeapProfileBuilder::siteOf(uint32_t stack, std::vector<HeapSite>& sites)
{
    const StackCounts& counts = _stacks[stack];
    const std::vector<uint32_t> path = pathOf(stack, counts.pid, counts.firstTimeNs);
    const uint32_t symbol = path.empty() ? Symbolizer::kNoStack : path.front();
    const auto [found, added] = _siteIndexes.emplace(symbol, sites.size());
    if (added) {
        sites.emplace_back().symbol = symbol;
        _siteBytes.push_back(0);
    }
    HeapSite& site = sites[found->second];
    if (added || counts.counts.bytes > _siteBytes[found->second]) {
        _siteBytes[found->second] = counts.counts.bytes;
        site.callers.assign(path.empty() ? path.begin() : path.begin() + 1, path.end());
    }
    return site;
}

void HeapProfileBuilder::finish(HeapProfile& profile)
{
    std::vector<HeapSite>& sites = profile.sites;
    for (uint32_t stack = 0; stack < _stacks.size(); ++stack) {
        if (_stacks[stack].counts.allocations != 0)
            siteOf(stack, sites).counts.add(_stacks[stack].counts);
    }
    std::sort(sites.begin(), sites.end(), [](const HeapSite& a, const HeapSite& b) {
        return a.counts.bytes != b.counts.bytes ? a.counts.bytes > b.counts.bytes : a.symbol < b.symbol;
    });
    for (const SeenFault& seen : _faults) {
        const heap::FaultRecord& record = seen.record;
        profile.faults.push_back(
            {record.fault, record.address, record.byte, pathOf(record.allocateStack, seen.pid, seen.timeNs),
             pathOf(record.freeStack, seen.pid, seen.timeNs), pathOf(record.faultStack, seen.pid, seen.timeNs)});
    }
    profile.counts =
        _counts.finish([this](uint32_t stack, uint32_t pid, uint64_t timeNs) { return pathOf(stack, pid, timeNs); });
    profile.classes = namedClasses();
    profile.totals = _totals;
}

} // namespace vnt
