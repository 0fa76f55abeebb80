#include "collectors/orphans/OrphanSearch.h"

#include <algorithm>
#include <cstring>

#include "collectors/orphans/LeakGraph.h"
#include "collectors/orphans/Reachability.h"
#include "collectors/orphans/RootFinder.h"
#include "platform/base/sys.h"

namespace vnt::orphans {
namespace {

constexpr uint64_t kShownContentBytes = 64;

/// Everything that counts as reached without being pointed to.
void addUndecided(const Snapshot& snapshot, const BlockIndex& blocks, Reachability& reachability)
{
    for (const uint64_t address : snapshot.reallocating) {
        const uint32_t block = blocks.find(address);
        if (block != BlockIndex::kNone && blocks.place(block).start == address)
            reachability.addBlock(block);
    }
}

std::string contentsOf(const BlockIndex::Place& place, MemoryImage& image)
{
    const uint64_t size = std::min(place.sizeBytes, kShownContentBytes);
    std::string contents(size, '\0');
    for (uint64_t at = 0; at < size;) {
        uint64_t skipped = 0;
        const auto bytes = image.view(place.start + at, size - at, skipped);
        if (bytes.empty())
            break;
        std::memcpy(contents.data() + at + skipped, bytes.data(), bytes.size());
        at += skipped + bytes.size();
    }
    return contents;
}

/// What a block begins with; 0 when it is too small or cannot be read.
uint64_t wordOf(const BlockIndex::Place& place, unsigned width, MemoryImage& image)
{
    uint64_t skipped = 0;
    const auto bytes = image.view(place.start, width, skipped);
    uint64_t word = 0;
    if (place.sizeBytes >= width && skipped == 0 && bytes.size() >= width)
        std::memcpy(&word, bytes.data(), width); // little-endian, as we are
    return word;
}

uint32_t flagsOf(const Snapshot& snapshot, const OrphanSearch::Options& options)
{
    const bool registers = std::all_of(snapshot.threads.begin(), snapshot.threads.end(),
                                       [](const PausedThread& thread) { return thread.hasRegisters; });
    uint32_t flags = 0;
    const auto set = [&flags](bool condition, uint32_t flag) { flags |= condition ? flag : 0; };
    set(snapshot.is32Bit, SearchRecord::k32Bit);
    set(options.atExit, SearchRecord::kAtExit);
    set(snapshot.isWindow(), SearchRecord::kInPlace);
    set(snapshot.hasUnknownBlocks, SearchRecord::kUnknownBlocks);
    set(!snapshot.reallocating.empty(), SearchRecord::kUndecided);
    set(!registers, SearchRecord::kNoRegisters);
    set(options.stacks, SearchRecord::kHasStacks);
    set(options.contents, SearchRecord::kHasContents);
    return flags;
}

} // namespace

OrphanSearch::OrphanSearch(const Options& options) : _options(options), _requestedNs(sys::monotonicNs()) { }

Status OrphanSearch::look(HeapView& heap)
{
    if (heap.identifiesClasses()) {
        // Of a moment before: a module that is loaded meanwhile has no names.
        if (auto modules = ModuleSpans::read(heap.pid()); modules.ok())
            _modules = modules.take();
    }
    const SnapshotOptions options{_options.atExit, _options.limitBytes};
    ASSIGN_OR_RETURN(_snapshot, takeSnapshot(heap, options, [this](Snapshot& snapshot) { _judged = judge(snapshot); }));
    return {};
}

OrphanResult OrphanSearch::judge()
{
    OrphanResult result = _judged ? std::move(*_judged) : judge(*_snapshot);
    result.search.pauseNs = _snapshot->pauseNs;
    result.stacks = std::move(_snapshot->stacks);
    _snapshot = nullptr; // its memory is as large as the target's
    result.search.verdictNs = sys::monotonicNs() - _requestedNs;
    return result;
}

OrphanResult OrphanSearch::judge(Snapshot& snapshot)
{
    const unsigned width = snapshot.is32Bit ? 4 : 8;
    std::vector<Range> mapped;
    for (const MapEntry& entry : snapshot.maps) {
        if (entry.canHoldPointers())
            mapped.push_back(entry.range);
    }
    normalize(mapped);
    const BlockIndex blocks(std::move(snapshot.blocks), mapped);
    Reachability reachability(blocks, snapshot.image, width);
    const Roots roots = findRoots({snapshot.maps, snapshot.threads, blocks, snapshot.is32Bit, snapshot.hasUnknownBlocks,
                                   !snapshot.reallocating.empty()},
                                  snapshot.image);
    addUndecided(snapshot, blocks, reachability);
    const uint64_t rootBytes = reachability.addRoots(roots);
    std::vector<uint32_t> leaked;
    for (uint32_t block = 0; block < blocks.count(); ++block) {
        if (!reachability.isReached(block))
            leaked.push_back(block);
    }
    OrphanResult result;
    result.timeNs = snapshot.timeNs;
    SearchRecord& search = result.search;
    search.pid = static_cast<uint32_t>(snapshot.pid);
    search.flags = flagsOf(snapshot, _options);
    search.name = snapshot.name;
    search.threads = static_cast<uint32_t>(snapshot.threads.size());
    search.blocks = blocks.count();
    search.blockBytes = blocks.totalBytes();
    search.rootBytes = rootBytes;
    search.olderBytes = roots.olderBytes;
    search.lostEvents = snapshot.lostEvents;
    search.leaks = leaked.size();
    for (const Leak& leak : arrangeLeaks(leaked, blocks, snapshot.image, width)) {
        const LiveBlock& block = blocks.block(leak.block);
        search.leakedBytes += block.sizeBytes;
        if (result.leaks.size() == kMaxLeaks) {
            result.omittedBytes += block.sizeBytes;
            continue;
        }
        FoundLeak& found = result.leaks.emplace_back();
        found.stack = _options.stacks ? block.stack : 0;
        found.record.address = block.address;
        found.record.sizeBytes = block.sizeBytes;
        found.record.kind = leak.kind;
        found.record.holder = leak.holder;
        found.record.timeNs = block.timeNs;
        found.record.function = static_cast<uint8_t>(block.function);
        if (_modules) {
            found.record.table = wordOf(blocks.place(leak.block), width, snapshot.image);
            found.record.code = _modules->codeOf(found.record.table);
            if (found.record.code == 0)
                found.record.table = 0;
        }
        if (_options.contents)
            found.record.contents = contentsOf(blocks.place(leak.block), snapshot.image);
    }
    search.unreadableBytes = snapshot.image.unreadableBytes();
    return result;
}

} // namespace vnt::orphans
