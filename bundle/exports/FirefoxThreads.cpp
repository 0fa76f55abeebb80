#include "bundle/exports/FirefoxThreads.h"

namespace vnt {

FirefoxThreads::FirefoxThreads(ExportSource& source, FirefoxTables& tables)
    : _source(source),
      _tables(tables),
      _samples(source.options().scratchDirectory),
      _markers(source.options().scratchDirectory),
      _changes(source.options().scratchDirectory),
      _markerData(source.options().scratchDirectory)
{
}

/// The first thread of a process stands for all of it, unless its main thread comes later.
uint32_t FirefoxThreads::addEntry(const Entry& entry)
{
    const auto number = static_cast<uint32_t>(_entries.size());
    _entries.push_back(entry);
    const auto [main, isFirst] = _mains.try_emplace(entry.pid, number);
    if (isFirst) {
        _entries[number].isMain = true;
    } else if (entry.pid == entry.tid && !entry.isWaits) {
        _entries[main->second].isMain = false;
        _entries[number].isMain = true;
        main->second = number;
    }
    return number;
}

uint32_t FirefoxThreads::entryOf(uint32_t thread)
{
    const auto known = _numbers.find(uint64_t{thread} * 2);
    if (known != _numbers.end())
        return known->second;
    const ExportThread& of = _source.threads().threads()[thread];
    return _numbers[uint64_t{thread} * 2] = addEntry({of.pid, of.tid, of.process, thread, false, false});
}

uint32_t FirefoxThreads::waitEntryOf(uint32_t thread)
{
    const auto known = _numbers.find(uint64_t{thread} * 2 + 1);
    if (known != _numbers.end())
        return known->second;
    (void)entryOf(thread); // stands before it
    const ExportThread& of = _source.threads().threads()[thread];
    return _numbers[uint64_t{thread} * 2 + 1] = addEntry({of.pid, of.tid, of.process, thread, true, false});
}

uint32_t FirefoxThreads::mainOf(uint32_t process)
{
    const uint32_t pid = _source.threads().processes()[process].pid;
    const auto known = _mains.find(pid);
    return known != _mains.end() ? known->second : addEntry({pid, pid, process, kNone, false, false});
}

uint32_t FirefoxThreads::recordingEntry()
{
    if (_recording == kNone)
        _recording = addEntry({0, 0, kNone, kNone, false, false});
    return _recording;
}

void FirefoxThreads::addSample(const ExportSample& sample)
{
    SortedSample sorted;
    sorted.timeNs = sample.timeNs;
    sorted.weightNs = sample.weightNs;
    sorted.place = _place++;
    sorted.thread = sample.thread;
    sorted.stack = sample.stack;
    sorted.isBlocked = sample.isBlocked ? 1 : 0;
    sorted.group = sample.isBlocked ? waitEntryOf(sample.thread) : entryOf(sample.thread);
    if (sample.isBlocked)
        _tables.noteWait(sample.stack);
    _samples.add(sorted);
}

void FirefoxThreads::addMarker(uint32_t entry, uint64_t beginNs, uint64_t endNs, std::string_view name,
                               FirefoxCategory category, std::string_view data)
{
    SortedMarker marker;
    marker.beginNs = beginNs;
    marker.endNs = std::max(beginNs, endNs);
    marker.place = _place++;
    marker.dataAt = _markerData.sizeBytes();
    marker.dataBytes = static_cast<uint32_t>(data.size());
    marker.entry = entry;
    marker.name = _source.stacks().strings().add(name);
    marker.category = static_cast<uint32_t>(category);
    marker.isInterval = endNs > beginNs ? 1 : 0;
    _markerData.append(data);
    _markers.add(marker);
}

void FirefoxThreads::addHeapChange(uint32_t process, uint64_t timeNs, int64_t bytes, uint32_t stack, uint64_t address)
{
    _changes.add({timeNs, _place++, bytes, address, mainOf(process), stack});
}

/// The records at the beginning of `rest` that belong to `entry`; they are taken away there.
template <typename Record> std::span<const Record> FirefoxThreads::take(std::span<const Record>& rest, uint32_t entry)
{
    const auto of = [](const Record& record) {
        if constexpr (std::is_same_v<Record, SortedSample>)
            return record.group;
        else
            return record.entry;
    };
    size_t count = 0;
    while (count < rest.size() && of(rest[count]) == entry)
        ++count;
    const std::span<const Record> taken = rest.first(count);
    rest = rest.subspan(count);
    return taken;
}

Status FirefoxThreads::write(JsonWriter& json)
{
    if (_entries.empty())
        (void)recordingEntry(); // a file without threads does not open
    ASSIGN_OR_RETURN(std::span<const SortedSample> samples, _samples.sorted());
    ASSIGN_OR_RETURN(std::span<const SortedMarker> markers, _markers.sorted());
    ASSIGN_OR_RETURN(std::span<const SortedChange> changes, _changes.sorted());
    ASSIGN_OR_RETURN(_markerText, _markerData.map());
    json.newLine().key("threads").beginArray();
    for (uint32_t number = 0; number < _entries.size(); ++number)
        writeEntry(json, number, take(samples, number), take(markers, number), take(changes, number));
    json.endArray();
    return {};
}

void FirefoxThreads::writeNames(JsonWriter& json, uint32_t number)
{
    const Entry& entry = _entries[number];
    std::string name = "recording";
    std::string process = "recording";
    if (entry.process != kNone)
        name = process = _source.threads().processes()[entry.process].name;
    if (entry.thread != kNone)
        name = _source.threads().threads()[entry.thread].name + (entry.isWaits ? " (off-cpu)" : "");
    json.member("name", name).member("processName", process).member("processType", "default");
    json.member("pid", std::to_string(entry.pid));
    if (entry.isWaits)
        json.member("tid", std::to_string(entry.tid) + "-off-cpu");
    else
        json.member("tid", entry.tid);
    json.member("isMainThread", entry.isMain);
    for (const char* key : {"processStartupTime", "registerTime"})
        json.member(key, 0);
    for (const char* key : {"processShutdownTime", "unregisterTime"})
        json.key(key).null();
    json.key("pausedRanges").beginArray().endArray().member("showMarkersInTimeline", true);
}

void FirefoxThreads::writeEntry(JsonWriter& json, uint32_t number, std::span<const SortedSample> samples,
                                std::span<const SortedMarker> markers, std::span<const SortedChange> changes)
{
    json.newLine().beginObject();
    writeNames(json, number);
    writeSamples(json, _entries[number], samples);
    writeMarkers(json, markers);
    if (!changes.empty())
        writeHeap(json, _entries[number], changes);
    json.endObject();
}

void FirefoxThreads::writeSamples(JsonWriter& json, const Entry& entry, std::span<const SortedSample> samples)
{
    const auto column = [&](const char* name, auto value) {
        json.newLine().key(name).beginArray();
        for (const SortedSample& sample : samples)
            value(sample);
        json.endArray();
    };
    json.newLine().key("samples").beginObject().member("weightType", entry.isWaits ? "tracing-ms" : "samples");
    if (samples.empty()) { // readers demand one
        json.member("length", 1).key("stack").beginArray().null().endArray().key("time").beginArray().value(0);
        json.endArray().key("weight").null().endObject();
        return;
    }
    json.member("length", samples.size());
    column("stack", [&](const SortedSample& sample) {
        json.value(entry.isWaits ? _tables.waitRowOf(sample.stack) : _tables.rowOf(sample.stack));
    });
    column("time", [&](const SortedSample& sample) { json.milliseconds(since(sample.timeNs)); });
    if (entry.isWaits) {
        column("weight", [&](const SortedSample& sample) { json.milliseconds(static_cast<int64_t>(sample.weightNs)); });
        column("threadCPUDelta", [&](const SortedSample&) { json.value(0); });
    } else {
        json.key("weight").null(); // each counts one
        column("threadCPUDelta", [&](const SortedSample& sample) { json.value(sample.weightNs); });
    }
    json.endObject();
}

void FirefoxThreads::writeMarkers(JsonWriter& json, std::span<const SortedMarker> markers)
{
    const auto column = [&](const char* name, auto value) {
        json.newLine().key(name).beginArray();
        for (const SortedMarker& marker : markers)
            value(marker);
        json.endArray();
    };
    json.newLine().key("markers").beginObject().member("length", markers.size());
    column("name", [&](const SortedMarker& marker) { json.value(marker.name); });
    column("startTime", [&](const SortedMarker& marker) { json.milliseconds(since(marker.beginNs)); });
    column("endTime", [&](const SortedMarker& marker) { json.milliseconds(since(marker.endNs)); });
    column("phase", [&](const SortedMarker& marker) { json.value(marker.isInterval); }); // 0 instant, 1 interval
    column("category", [&](const SortedMarker& marker) { json.value(marker.category); });
    column("data", [&](const SortedMarker& marker) { json.raw({&_markerText[marker.dataAt], marker.dataBytes}); });
    json.endObject();
}

void FirefoxThreads::writeHeap(JsonWriter& json, const Entry& entry, std::span<const SortedChange> changes)
{
    const auto column = [&](const char* name, auto value) {
        json.newLine().key(name).beginArray();
        for (const SortedChange& change : changes)
            value(change);
        json.endArray();
    };
    json.newLine().key("nativeAllocations").beginObject().member("length", changes.size());
    json.member("weightType", "bytes");
    column("time", [&](const SortedChange& change) { json.milliseconds(since(change.timeNs)); });
    column("weight", [&](const SortedChange& change) { json.value(change.amount); });
    column("stack", [&](const SortedChange& change) { json.value(_tables.rowOf(change.stack)); });
    constexpr uint64_t kExact = (uint64_t{1} << 53) - 1; // of what numbers are exact there
    column("memoryAddress", [&](const SortedChange& change) { json.value(change.address & kExact); });
    column("threadId", [&](const SortedChange&) { json.value(entry.tid); });
    json.endObject();
}

} // namespace vnt
