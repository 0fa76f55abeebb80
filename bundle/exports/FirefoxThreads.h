#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bundle/exports/FirefoxTables.h"
#include "bundle/exports/SampleOrder.h"

namespace vnt {

/// A marker as it is sorted; its data stand in a ScratchFile.
struct SortedMarker {
    uint64_t beginNs = 0;
    uint64_t endNs = 0;
    uint64_t place = 0;
    uint64_t dataAt = 0;
    uint32_t dataBytes = 0;
    uint32_t entry = 0;
    uint32_t name = 0; ///< a text
    uint32_t category = 0;
    uint32_t isInterval = 0;
    uint32_t padding = 0;

    bool operator<(const SortedMarker& other) const
    {
        if (entry != other.entry)
            return entry < other.entry;
        return beginNs != other.beginNs ? beginNs < other.beginNs : place < other.place;
    }
};

/// A change of the heap, or a value of a counter.
struct SortedChange {
    uint64_t timeNs = 0;
    uint64_t place = 0;
    int64_t amount = 0;
    uint64_t address = 0;
    uint32_t entry = 0; ///< or the counter's number
    uint32_t stack = 0;

    bool operator<(const SortedChange& other) const
    {
        if (entry != other.entry)
            return entry < other.entry;
        return timeNs != other.timeNs ? timeNs < other.timeNs : place < other.place;
    }
};

/// The threads of a Firefox Profiler file: what was recorded of each is gathered in the order it comes, sorted, and
/// written column by column. Threads of the file are those recorded, for waits each a second one, and one for what
/// belongs to no thread. One thread.
class FirefoxThreads {
public:
    /// Both outlive this.
    FirefoxThreads(ExportSource& source, FirefoxTables& tables);

    // Each answers the number of a thread of the file.
    uint32_t entryOf(uint32_t thread);
    uint32_t waitEntryOf(uint32_t thread);
    /// The one that stands for a whole process.
    uint32_t mainOf(uint32_t process);
    uint32_t recordingEntry();
    [[nodiscard]] bool hasProcess(uint32_t pid) const { return _mains.count(pid) != 0; }
    [[nodiscard]] uint32_t mainOfPid(uint32_t pid) const { return _mains.at(pid); }

    void addSample(const ExportSample& sample);
    /// `data`: a JSON object.
    void addMarker(uint32_t entry, uint64_t beginNs, uint64_t endNs, std::string_view name, FirefoxCategory category,
                   std::string_view data);
    void addHeapChange(uint32_t process, uint64_t timeNs, int64_t bytes, uint32_t stack, uint64_t address);

    Status write(JsonWriter& json);
    [[nodiscard]] std::string pidText(uint32_t entry) const { return std::to_string(_entries[entry].pid); }

private:
    struct Entry {
        uint32_t pid = 0;
        uint32_t tid = 0;
        uint32_t process = 0;
        uint32_t thread = 0; ///< kNone: of a process or of nothing
        bool isWaits = false;
        bool isMain = false;
    };
    static constexpr uint32_t kNone = ~0u;

    template <typename Record> static std::span<const Record> take(std::span<const Record>& rest, uint32_t entry);
    uint32_t addEntry(const Entry& entry);
    void writeEntry(JsonWriter& json, uint32_t number, std::span<const SortedSample> samples,
                    std::span<const SortedMarker> markers, std::span<const SortedChange> changes);
    void writeNames(JsonWriter& json, uint32_t number);
    void writeSamples(JsonWriter& json, const Entry& entry, std::span<const SortedSample> samples);
    void writeMarkers(JsonWriter& json, std::span<const SortedMarker> markers);
    void writeHeap(JsonWriter& json, const Entry& entry, std::span<const SortedChange> changes);
    [[nodiscard]] int64_t since(uint64_t timeNs) const { return static_cast<int64_t>(_source.sinceStart(timeNs)); }

    ExportSource& _source;
    FirefoxTables& _tables;
    std::vector<Entry> _entries;
    std::map<uint64_t, uint32_t> _numbers; ///< by thread * 2, plus 1 for waits
    std::map<uint32_t, uint32_t> _mains; ///< by pid
    uint32_t _recording = kNone;
    SampleSpool _samples;
    RecordSpool<SortedMarker> _markers;
    RecordSpool<SortedChange> _changes;
    ScratchFile _markerData;
    std::span<char> _markerText;
    uint64_t _place = 0;
};

} // namespace vnt
