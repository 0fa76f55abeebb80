#include "bundle/exports/PerfettoHeap.h"

#include <algorithm>

namespace vnt {

using protozero::pbf_writer;

namespace {

/// A line on a screen needs no more; an allocation every 100 ns would make gigabytes.
constexpr uint64_t kNsBetweenCounters = 1'000'000;
/// Stacks in one packet of a heap profile.
constexpr size_t kStacksPerPacket = 1000;

// What tells a process's tracks apart; counters also from those of the census.
enum : uint32_t { kLiveBytes = 100, kLiveBlocks = 101, kFaults = 1, kLeakTrack = 2 };

} // namespace

PerfettoHeap::Heap& PerfettoHeap::changed(uint64_t timeNs, uint32_t process)
{
    _lastNs = std::max(_lastNs, timeNs);
    Heap& heap = _heaps[process];
    heap.isTold = false;
    return heap;
}

void PerfettoHeap::tellLive(uint64_t timeNs, uint32_t process, Heap& heap)
{
    const uint32_t pid = pidOf(process);
    (void)_tracks.processNumber(process);
    const auto tell = [&](uint32_t kind, const char* name, PerfettoTracks::Unit unit, uint64_t value) {
        PerfettoEvent(_events, PerfettoEvent::kCounter, _tracks.counter(pid, kind, name, unit))
            .value(static_cast<int64_t>(value))
            .write(timeNs);
    };
    tell(kLiveBytes, "heap: live bytes", PerfettoTracks::Unit::kBytes, heap.liveBytes);
    tell(kLiveBlocks, "heap: live blocks", PerfettoTracks::Unit::kCount, heap.liveBlocks);
    heap.toldNs = timeNs;
    heap.isTold = true;
}

void PerfettoHeap::allocate(const ExportAllocation& allocation)
{
    Heap& heap = changed(allocation.timeNs, allocation.process);
    heap.liveBytes += allocation.sizeBytes;
    ++heap.liveBlocks;
    Totals& totals = heap.stacks[allocation.stack];
    totals.bytes += allocation.sizeBytes;
    ++totals.count;
    if (allocation.timeNs - heap.toldNs >= kNsBetweenCounters)
        tellLive(allocation.timeNs, allocation.process, heap);
}

void PerfettoHeap::free(const ExportFree& free)
{
    const ExportAllocation& block = free.allocation;
    Heap& heap = changed(free.timeNs, block.process);
    heap.liveBytes -= block.sizeBytes;
    --heap.liveBlocks;
    Totals& totals = heap.stacks[block.stack];
    totals.freedBytes += block.sizeBytes;
    ++totals.freedCount;
    if (free.timeNs - heap.toldNs >= kNsBetweenCounters)
        tellLive(free.timeNs, block.process, heap);
}

void PerfettoHeap::fault(const ExportFault& fault)
{
    _lastNs = std::max(_lastNs, fault.timeNs);
    (void)_tracks.processNumber(fault.process);
    const uint64_t track = _tracks.plain(pidOf(fault.process), kFaults, "uses of freed blocks");
    PerfettoEvent made(_events, PerfettoEvent::kInstant, track);
    made.name(nameOf(fault.fault), "heap").stack(fault.faultStack).pointer("block", fault.address);
    if (fault.fault == heap::Fault::kWritten)
        made.number("first changed byte", fault.byte);
    made.write(fault.timeNs);
}

void PerfettoHeap::search(const ExportSearch& search)
{
    writeLeaks();
    _searchNs = search.timeNs;
    _searchedProcess = search.process;
    (void)_tracks.processNumber(search.process);
    const uint64_t track = _tracks.plain(pidOf(search.process), kLeakTrack + 1, "searches for leaks");
    PerfettoEvent(_leaks, PerfettoEvent::kInstant, track)
        .name("search", "leaks")
        .number("leaks", search.record.leaks)
        .number("leaked bytes", search.record.leakedBytes)
        .number("blocks", search.record.blocks)
        .number("target stood still for ns", search.record.pauseNs)
        .write(search.timeNs);
}

void PerfettoHeap::leak(const ExportLeak& leak)
{
    Totals& totals = _leaked[{leak.stack, static_cast<uint32_t>(leak.record.kind)}];
    totals.bytes += leak.record.sizeBytes;
    ++totals.count;
}

void PerfettoHeap::notSearched(uint64_t timeNs, uint32_t process, std::string_view reason)
{
    writeLeaks();
    (void)_tracks.processNumber(process);
    const uint64_t track = _tracks.plain(pidOf(process), kLeakTrack + 1, "searches for leaks");
    PerfettoEvent(_leaks, PerfettoEvent::kInstant, track)
        .name("not searched", "leaks")
        .text("reason", reason)
        .write(timeNs);
}

void PerfettoHeap::writeLeaks()
{
    static constexpr const char* kNames[orphans::kKinds] = {"leak", "leaked cycle", "held by a leak"};
    for (const auto& [key, totals] : _leaked) {
        const uint64_t track = _tracks.plain(pidOf(_searchedProcess), kLeakTrack, "leaks");
        PerfettoEvent(_leaks, PerfettoEvent::kInstant, track)
            .name(kNames[key.second], "leaks")
            .stack(key.first)
            .weight(static_cast<double>(totals.bytes))
            .number("objects", totals.count)
            .number("bytes", totals.bytes)
            .write(_searchNs);
    }
    _leaked.clear();
}

/// One snapshot a process, at the end; in pieces, all but the last marked as continued.
void PerfettoHeap::writeProfiles()
{
    enum : uint32_t { kProcessDumps = 5, kContinued = 6, kIndex = 7 }; // ProfilePacket
    enum : uint32_t { kPid = 1, kSamples = 2, kFromStartup = 3, kTimestamp = 9, kHeapName = 11, kInterval = 12 };
    uint64_t index = 0;
    for (auto heap = _heaps.begin(); heap != _heaps.end(); ++heap) {
        for (auto at = heap->second.stacks.begin(); at != heap->second.stacks.end();) {
            std::string text;
            {
                pbf_writer profile(text);
                {
                    pbf_writer dump(profile, kProcessDumps);
                    dump.add_uint64(kPid, pidOf(heap->first));
                    dump.add_bool(kFromStartup, true);
                    dump.add_uint64(kTimestamp, _lastNs);
                    dump.add_string(kHeapName, "malloc");
                    dump.add_uint64(kInterval, 1);
                    for (size_t i = 0; i < kStacksPerPacket && at != heap->second.stacks.end(); ++i, ++at) {
                        const uint64_t stack = _events.callstack(at->first);
                        pbf_writer sample(dump, kSamples);
                        sample.add_uint64(1, stack);
                        sample.add_uint64(2, at->second.bytes);
                        sample.add_uint64(3, at->second.freedBytes);
                        sample.add_uint64(5, at->second.count);
                        sample.add_uint64(6, at->second.freedCount);
                    }
                }
                const bool isLast = at == heap->second.stacks.end() && std::next(heap) == _heaps.end();
                if (!isLast)
                    profile.add_bool(kContinued, true);
                profile.add_uint64(kIndex, index++);
            }
            _events.write(_lastNs, perfetto::packet::kProfilePacket, text);
        }
    }
}

void PerfettoHeap::finish()
{
    for (auto& [process, heap] : _heaps) {
        if (!heap.isTold)
            tellLive(_lastNs, process, heap);
    }
    writeProfiles();
    writeLeaks();
}

} // namespace vnt
