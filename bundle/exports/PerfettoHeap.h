#pragma once

#include <map>

#include "bundle/exports/PerfettoTracks.h"

namespace vnt {

/// Allocations and leaks in a Perfetto trace: counters of the live heap, uses of freed blocks and leaks as instants, at
/// the end a heap profile of each process. Memory grows with the different stacks. One thread.
class PerfettoHeap {
public:
    /// The references outlive this.
    PerfettoHeap(PerfettoSequence& events, PerfettoSequence& leaks, PerfettoTracks& tracks, ExportSource& source)
        : _events(events),
          _leaks(leaks),
          _tracks(tracks),
          _source(source)
    {
    }
    void allocate(const ExportAllocation& allocation);
    void free(const ExportFree& free);
    void fault(const ExportFault& fault);
    void search(const ExportSearch& search);
    void leak(const ExportLeak& leak);
    void notSearched(uint64_t timeNs, uint32_t process, std::string_view reason);
    void finish();

private:
    struct Totals {
        uint64_t bytes = 0;
        uint64_t count = 0;
        uint64_t freedBytes = 0;
        uint64_t freedCount = 0;
    };
    struct Heap {
        uint64_t liveBytes = 0;
        uint64_t liveBlocks = 0;
        uint64_t toldNs = 0;
        bool isTold = true;
        std::map<uint32_t, Totals> stacks;
    };

    Heap& changed(uint64_t timeNs, uint32_t process);
    void tellLive(uint64_t timeNs, uint32_t process, Heap& heap);
    void writeLeaks();
    void writeProfiles();
    [[nodiscard]] uint32_t pidOf(uint32_t process) const { return _source.threads().processes()[process].pid; }

    PerfettoSequence& _events;
    PerfettoSequence& _leaks;
    PerfettoTracks& _tracks;
    ExportSource& _source;
    std::map<uint32_t, Heap> _heaps; ///< by process number
    std::map<std::pair<uint32_t, uint32_t>, Totals> _leaked; ///< of the latest search, by stack and kind
    uint64_t _searchNs = 0;
    uint32_t _searchedProcess = 0;
    uint64_t _lastNs = 0;
};

} // namespace vnt
