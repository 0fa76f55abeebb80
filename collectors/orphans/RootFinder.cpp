#include "collectors/orphans/RootFinder.h"

#include <algorithm>

namespace vnt::orphans {
namespace {

constexpr uint64_t kPageBytes = 4096;
constexpr uint64_t kRedZoneBytes = 128; // below the stack pointer, used without moving it (System V ABI, x86-64)
/// A block of this size or larger has pages of its own in most allocators.
constexpr uint64_t kOwnPagesBytes = 64 << 10;
/// Blocks of an allocator that is not the C library's, this far from one another, are neighbours in its memory.
constexpr uint64_t kNeighbourBytes = 64 << 10;
constexpr uint64_t kThreadControlBytes = 2304; // struct pthread of the GNU C library, or more than it
constexpr uint64_t kLargestStack = uint64_t{64} << 20; // that is searched for the remains of a thread

/// The GNU C library's arenas other than the first lie at multiples of this (malloc/arena.c, HEAP_MAX_SIZE).
constexpr uint64_t arenaBytes(bool is32Bit) { return is32Bit ? 1u << 20 : 64u << 20; }

class Finder {
public:
    Finder(const RootQuestion& question, MemoryImage& image)
        : _question(question),
          _image(image),
          _width(question.is32Bit ? 4 : 8)
    {
    }

    Roots find();
    std::vector<Range> allocator();

private:
    [[nodiscard]] uint64_t word(uint64_t address) { return _image.word(address, _width); }
    void addArenas(const MapEntry& entry, std::vector<Range>& found);
    void addForeignHeaps(std::vector<Range>& found);
    void addDeadStack(size_t entry, std::vector<Range>& found);
    void addBelowStackPointers(std::vector<Range>& found);
    void addUndecided(const std::vector<Range>& allocator, std::vector<Range>& roots);
    [[nodiscard]] bool beginsAfterGuard(size_t entry) const;
    [[nodiscard]] size_t entryOf(uint64_t address) const;

    const RootQuestion& _question;
    MemoryImage& _image;
    const unsigned _width;
};

/// Index of the mapping that holds `address`; their number when there is none.
size_t Finder::entryOf(uint64_t address) const
{
    const auto& maps = _question.maps;
    const auto found = std::upper_bound(maps.begin(), maps.end(), address,
                                        [](uint64_t value, const MapEntry& entry) { return value < entry.range.end; });
    return found != maps.end() && found->range.contains(address) ? static_cast<size_t>(found - maps.begin())
                                                                 : maps.size();
}

/// Nothing that the program uses lies right below: the mapping begins where a stack does.
bool Finder::beginsAfterGuard(size_t entry) const
{
    if (entry == 0)
        return true;
    const MapEntry& below = _question.maps[entry - 1];
    return below.range.end != _question.maps[entry].range.start || (!below.readable && !below.writable);
}

/// Arenas of the GNU C library (malloc/arena.c, struct heap_info): arena, heap before, size, size made accessible.
void Finder::addArenas(const MapEntry& entry, std::vector<Range>& found)
{
    const uint64_t size = arenaBytes(_question.is32Bit);
    for (uint64_t at = (entry.range.start + size - 1) / size * size; at < entry.range.end; at += size) {
        const uint64_t arena = word(at);
        const uint64_t before = word(at + _width);
        const uint64_t used = word(at + 2 * _width);
        const uint64_t accessible = word(at + 3 * _width);
        const uint64_t first = arena / size * size;
        const bool sound = arena > first && arena - first <= 256 && (before == 0 ? first == at : before % size == 0)
            && used != 0 && used <= accessible && accessible <= size && accessible % kPageBytes == 0;
        if (sound)
            found.push_back({at, at + size}); // with what it has reserved and not used yet
    }
}

/// Where blocks lie outside the C library's memory: large ones with the pages they fill, others with what is between
/// them.
void Finder::addForeignHeaps(std::vector<Range>& found)
{
    normalize(found);
    std::vector<Range> own;
    size_t known = 0;
    for (uint32_t i = 0; i < _question.blocks.count(); ++i) {
        const auto& place = _question.blocks.place(i);
        while (known < found.size() && found[known].end <= place.start)
            ++known;
        if (known < found.size() && found[known].start <= place.start)
            continue;
        const uint64_t end = place.start + place.sizeBytes;
        const size_t entry = entryOf(place.start);
        if (entry == _question.maps.size())
            continue;
        const Range& mapping = _question.maps[entry].range;
        if (place.sizeBytes >= kOwnPagesBytes) {
            const bool hasHeader = place.start % kPageBytes <= 2 * _width;
            own.push_back({hasHeader ? place.start / kPageBytes * kPageBytes : place.start,
                           hasHeader ? std::min((end + kPageBytes - 1) / kPageBytes * kPageBytes, mapping.end) : end});
        } else if (!own.empty() && mapping.contains(own.back().start)
                   && place.start - own.back().end < kNeighbourBytes) {
            own.back().end = end;
        } else {
            own.push_back({place.start, end});
        }
    }
    found.insert(found.end(), own.begin(), own.end());
}

/// Stacks of threads that have ended are kept by the C library for the next ones. They are known by the thread's
/// control block at their upper end, which holds its own address twice.
void Finder::addDeadStack(size_t entry, std::vector<Range>& found)
{
    const MapEntry& stack = _question.maps[entry];
    if (!stack.anonymous || stack.shared || !stack.writable || !stack.path.empty() || !beginsAfterGuard(entry)
        || stack.range.sizeBytes() > kLargestStack)
        return;
    for (const PausedThread& thread : _question.threads) {
        if (stack.range.contains(thread.stackPointer) || stack.range.contains(thread.threadPointer)
            || (thread.threadPointer == 0 && thread.stackPointer == 0))
            return;
    }
    const uint64_t lowest = std::max(stack.range.start, stack.range.end - std::min(stack.range.end, 4 * kPageBytes));
    for (uint64_t at = (stack.range.end - 1) / 64 * 64; at >= lowest && at >= 64; at -= 64) {
        if (word(at) == at && word(at + 2 * _width) == at) {
            // But for the block's second word: the vector of thread-local storage, which is kept with the stack.
            found.push_back({stack.range.start, at});
            found.push_back({at + 2 * _width, std::min(at + kThreadControlBytes, stack.range.end)});
            return;
        }
    }
}

void Finder::addBelowStackPointers(std::vector<Range>& found)
{
    std::vector<uint64_t> lowest(_question.maps.size(), UINT64_MAX);
    for (const PausedThread& thread : _question.threads) {
        const size_t entry = entryOf(thread.stackPointer);
        if (entry < lowest.size())
            lowest[entry] = std::min(lowest[entry], thread.stackPointer);
    }
    for (size_t i = 0; i < lowest.size(); ++i) {
        const MapEntry& entry = _question.maps[i];
        // A mapping that something else may share with the stack is a root as a whole.
        if (lowest[i] == UINT64_MAX || (entry.path != "[stack]" && !beginsAfterGuard(i)))
            continue;
        const uint64_t used = lowest[i] - std::min(lowest[i], kRedZoneBytes);
        if (used > entry.range.start)
            found.push_back({entry.range.start, used / 16 * 16});
    }
}

std::vector<Range> Finder::allocator()
{
    std::vector<Range> found;
    for (const MapEntry& entry : _question.maps) {
        if (entry.path == "[heap]")
            found.push_back(entry.range);
        else if (entry.anonymous && !entry.shared && entry.writable)
            addArenas(entry, found);
    }
    addForeignHeaps(found);
    normalize(found);
    return found;
}

/// What registers and stacks point to in the allocator's memory, up to the next block.
void Finder::addUndecided(const std::vector<Range>& allocator, std::vector<Range>& roots)
{
    std::vector<Range> added;
    const auto consider = [&](uint64_t address) {
        const auto in = std::upper_bound(allocator.begin(), allocator.end(), address,
                                         [](uint64_t value, const Range& range) { return value < range.end; });
        if (in == allocator.end() || !in->contains(address) || _question.blocks.find(address) != BlockIndex::kNone)
            return;
        const uint32_t next = _question.blocks.firstEndingBehind(address);
        const uint64_t end = next < _question.blocks.count() ? _question.blocks.place(next).start : in->end;
        added.push_back({address / _width * _width, std::min(end, in->end)});
    };
    for (const PausedThread& thread : _question.threads) {
        for (const uint64_t value : thread.words)
            consider(value);
        const size_t entry = entryOf(thread.stackPointer);
        if (entry == _question.maps.size())
            continue;
        for (uint64_t at = thread.stackPointer / _width * _width; at < _question.maps[entry].range.end; at += _width)
            consider(word(at));
    }
    roots.insert(roots.end(), added.begin(), added.end());
    normalize(roots);
}

Roots Finder::find()
{
    std::vector<Range> all;
    std::vector<Range> library;
    std::vector<Range> holes;
    for (size_t i = 0; i < _question.maps.size(); ++i) {
        const MapEntry& entry = _question.maps[i];
        if (!entry.canHoldPointers())
            continue;
        (entry.isCLibrary() ? library : all).push_back(entry.range);
        addDeadStack(i, holes);
    }
    addBelowStackPointers(holes);
    std::vector<Range> blocks;
    blocks.reserve(_question.blocks.count());
    for (uint32_t i = 0; i < _question.blocks.count(); ++i)
        blocks.push_back(
            {_question.blocks.place(i).start, _question.blocks.place(i).start + _question.blocks.place(i).sizeBytes});
    const std::vector<Range> heap = allocator();
    Roots roots;
    if (_question.unknownBlocks) {
        for (const Range& range : without(heap, blocks))
            roots.olderBytes += range.sizeBytes();
    } else {
        holes.insert(holes.end(), heap.begin(), heap.end());
    }
    normalize(holes);
    roots.ranges = without(without(all, holes), blocks);
    roots.allocatorLists = without(library, blocks);
    if (_question.undecided)
        addUndecided(heap, roots.ranges);
    for (const PausedThread& thread : _question.threads)
        roots.words.insert(roots.words.end(), thread.words.begin(), thread.words.end());
    return roots;
}

} // namespace

Roots findRoots(const RootQuestion& question, MemoryImage& image) { return Finder(question, image).find(); }

std::vector<Range> allocatorMemory(const RootQuestion& question, MemoryImage& image)
{
    return Finder(question, image).allocator();
}

} // namespace vnt::orphans
