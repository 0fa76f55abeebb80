#include <algorithm>
#include <bit>
#include <protozero/pbf_writer.hpp>
#include <unordered_map>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"

namespace vnt {

namespace {

using protozero::pbf_writer;

// profile.proto of github.com/google/pprof: field numbers.
namespace profile {
enum : uint32_t {
    kSampleType = 1,
    kSample = 2,
    kMapping = 3,
    kLocation = 4,
    kFunction = 5,
    kStringTable = 6,
    kTimeNanos = 9,
    kDurationNanos = 10,
    kPeriodType = 11,
    kPeriod = 12,
    kComment = 13,
    kDefaultSampleType = 14,
};
} // namespace profile

/// Kinds of value that a sample can have; the order is that of the file.
struct ValueKind {
    const char* type;
    const char* unit;
};

/// What a line of the profile is of.
struct Key {
    uint32_t owner = 0; ///< thread; of allocations the process
    uint32_t stack = 0;
    uint32_t detail = 0; ///< 1: waits; of allocations the size class, of leaks their kind
    bool operator==(const Key&) const = default;
    auto operator<=>(const Key&) const = default;
};

struct KeyHash {
    size_t operator()(const Key& key) const
    {
        const uint64_t hash =
            ((uint64_t{key.owner} << 32 | key.stack) + key.detail * 0x9e3779b97f4a7c15ULL) * 0xff51afd7ed558ccdULL;
        return static_cast<size_t>(hash ^ hash >> 32);
    }
};

struct Values {
    uint64_t count = 0;
    uint64_t amount = 0; ///< ns or bytes
    uint64_t freedCount = 0;
    uint64_t freedAmount = 0;
};

class Collector final : public ExportHandler {
public:
    void onSample(const ExportSample& sample) override
    {
        Values& values = all[{sample.thread, sample.stack, sample.isBlocked ? 1u : 0u}];
        ++values.count;
        values.amount += sample.weightNs;
        hasBlocked = hasBlocked || sample.isBlocked;
        noteTime(sample.timeNs);
    }
    void onAllocation(const ExportAllocation& allocation) override
    {
        Values& values = all[keyOf(allocation)];
        ++values.count;
        values.amount += allocation.sizeBytes;
        noteTime(allocation.timeNs);
    }
    void onFree(const ExportFree& free) override
    {
        Values& values = all[keyOf(free.allocation)];
        ++values.freedCount;
        values.freedAmount += free.allocation.sizeBytes;
        noteTime(free.timeNs);
    }

    /// Each search tells all leaks: the last one counts.
    void onSearch(const ExportSearch& search) override
    {
        all.clear();
        searchNs = search.timeNs;
        noteTime(search.timeNs);
    }
    void onLeak(const ExportLeak& leak) override
    {
        Values& values = all[{leak.process, leak.stack, static_cast<uint32_t>(leak.record.kind)}];
        ++values.count;
        values.amount += leak.record.sizeBytes;
    }

    std::unordered_map<Key, Values, KeyHash> all;
    uint64_t searchNs = 0;
    bool hasBlocked = false;
    uint64_t lastNs = 0;

private:
    /// Sizes up to a power of two are one class.
    static Key keyOf(const ExportAllocation& allocation)
    {
        const auto sizeClass = static_cast<uint32_t>(
            allocation.sizeBytes <= 1 ? allocation.sizeBytes
                                      : static_cast<uint64_t>(std::bit_width(allocation.sizeBytes - 1)) + 1);
        return {allocation.process, allocation.stack, sizeClass};
    }
    void noteTime(uint64_t timeNs) { lastNs = std::max(lastNs, timeNs); }
};

class PprofExporter final : public Exporter {
public:
    Status write(ExportSource& source, OutputSink& out) override;

private:
    void writeTypes(const std::vector<ValueKind>& kinds, const char* preferred);
    void writeSamples();
    void writeLabels(pbf_writer& sample, const Key& key);
    void writeMappings();
    void writeLocations();
    void writeFunctions();
    void writeStrings();
    void writeTimes();
    uint32_t string(std::string_view text) { return _source->stacks().strings().add(text); }
    void flush();
    void addType(uint32_t field, const ValueKind& kind);

    ExportSource* _source = nullptr; // not owned: outlives the call
    OutputSink* _out = nullptr; // likewise
    Collector _collected;
    bool _isHeap = false;
    bool _isLeaks = false;
    std::string _text;
    pbf_writer _profile{_text};
    std::vector<uint32_t> _path;
    std::vector<bool> _usedLocations;
    std::vector<bool> _usedFunctions;
};

void PprofExporter::flush()
{
    _out->write(_text);
    _text.clear();
}

void PprofExporter::addType(uint32_t field, const ValueKind& kind)
{
    pbf_writer type(_profile, field);
    type.add_int64(1, string(kind.type));
    type.add_int64(2, string(kind.unit));
}

void PprofExporter::writeTypes(const std::vector<ValueKind>& kinds, const char* preferred)
{
    for (const ValueKind& kind : kinds)
        addType(profile::kSampleType, kind);
    // Without it readers show the last one.
    _profile.add_int64(profile::kDefaultSampleType, string(preferred));
    addType(profile::kPeriodType, _isHeap || _isLeaks ? ValueKind{"space", "bytes"} : ValueKind{"cpu", "nanoseconds"});
    _profile.add_int64(profile::kPeriod, _isHeap ? 1 : static_cast<int64_t>(_source->instruments().front().intervalNs));
}

void PprofExporter::writeSamples()
{
    // In the order of their keys, not of a hash table.
    std::vector<std::pair<Key, const Values*>> sorted;
    sorted.reserve(_collected.all.size());
    for (const auto& [key, values] : _collected.all)
        sorted.emplace_back(key, &values);
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    _usedLocations.assign(_source->stacks().locations().size(), false);
    for (const auto& [key, values] : sorted) {
        {
            pbf_writer sample(_profile, profile::kSample);
            _source->stacks().pathOf(key.stack, _path);
            std::reverse(_path.begin(), _path.end()); // the innermost first
            for (uint32_t& location : _path) {
                _usedLocations[location] = true;
                ++location; // numbers in the file begin at 1
            }
            sample.add_packed_uint64(1, _path.begin(), _path.end());
            std::vector<int64_t> numbers;
            const auto add = [&](uint64_t count, uint64_t amount) {
                numbers.push_back(static_cast<int64_t>(count));
                numbers.push_back(static_cast<int64_t>(amount));
            };
            if (_isLeaks) {
                add(values->count, values->amount);
            } else if (_isHeap) {
                add(values->count, values->amount);
                add(values->count - values->freedCount, values->amount - values->freedAmount);
            } else {
                const bool isBlocked = key.detail != 0;
                add(isBlocked ? 0 : values->count, isBlocked ? 0 : values->amount);
                if (_collected.hasBlocked)
                    add(isBlocked ? values->count : 0, isBlocked ? values->amount : 0);
            }
            sample.add_packed_int64(2, numbers.begin(), numbers.end());
            writeLabels(sample, key);
        }
        flush();
    }
}

void PprofExporter::writeLabels(pbf_writer& sample, const Key& key)
{
    const auto text = [&](const char* name, std::string_view value) {
        pbf_writer label(sample, 3);
        label.add_int64(1, string(name));
        label.add_int64(2, string(value));
    };
    // A number without a unit vanishes where it is 0.
    const auto number = [&](const char* name, uint64_t value, const char* unit) {
        pbf_writer label(sample, 3);
        label.add_int64(1, string(name));
        label.add_int64(3, static_cast<int64_t>(value));
        label.add_int64(4, string(unit));
    };
    const ThreadTable& threads = _source->threads();
    if (_isHeap || _isLeaks) {
        static constexpr const char* kKinds[orphans::kKinds] = {"root", "cycle", "held"};
        const ExportProcess& process = threads.processes()[key.owner];
        if (_isLeaks)
            text("kind", kKinds[key.detail]);
        else
            number("bytes", key.detail == 0 ? 0 : uint64_t{1} << (key.detail - 1), "bytes");
        text("process", process.name);
        number("pid", process.pid, "id");
        return;
    }
    const ExportThread& thread = threads.threads()[key.owner];
    text("thread", thread.name);
    number("tid", thread.tid, "id");
    text("process", threads.processOf(thread).name);
    number("pid", thread.pid, "id");
    text("state", key.detail != 0 ? "blocked" : "running");
}

/// The program first: readers take the first mapping for it.
void PprofExporter::writeMappings()
{
    const std::vector<ExportModule>& modules = _source->stacks().modules();
    std::string program;
    for (const ExportProcess& process : _source->threads().processes()) {
        if (process.pid == _source->targetPid())
            program = process.executable;
    }
    std::vector<uint32_t> order(modules.size());
    for (uint32_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_partition(order.begin(), order.end(), [&](uint32_t number) {
        return !program.empty() && _source->stacks().text(modules[number].path) == program;
    });
    for (const uint32_t number : order) {
        const ExportModule& module = modules[number];
        pbf_writer mapping(_profile, profile::kMapping);
        mapping.add_uint64(1, number + 1);
        mapping.add_uint64(2, module.start);
        mapping.add_uint64(3, module.start + module.sizeBytes);
        mapping.add_uint64(4, module.fileOffset);
        mapping.add_int64(5, module.path);
        mapping.add_int64(6, string(module.buildId));
        mapping.add_bool(7, module.hasNames);
        mapping.add_bool(8, module.hasLines);
        mapping.add_bool(9, module.hasLines);
        mapping.add_bool(10, module.hasInlined);
    }
    flush();
}

void PprofExporter::writeLocations()
{
    const StackTable& table = _source->stacks();
    _usedFunctions.assign(table.functions().size(), false);
    for (uint32_t number = 0; number < _usedLocations.size(); ++number) {
        if (!_usedLocations[number])
            continue;
        const ExportLocation& location = table.locations()[number];
        {
            pbf_writer message(_profile, profile::kLocation);
            message.add_uint64(1, number + 1);
            if (location.module != kNoModule) {
                const ExportModule& module = table.modules()[location.module];
                message.add_uint64(2, location.module + 1);
                message.add_uint64(3, module.start + (location.fileOffset - module.fileOffset));
            }
            for (uint32_t i = 0; i < location.lineCount; ++i) {
                const ExportLine& line = table.line(location.firstLine + i);
                _usedFunctions[line.function] = true;
                pbf_writer part(message, 4);
                part.add_uint64(1, line.function + 1);
                if (line.line != 0)
                    part.add_int64(2, line.line);
            }
        }
        flush();
    }
}

void PprofExporter::writeFunctions()
{
    const StackTable& table = _source->stacks();
    std::vector<uint32_t> files(table.functions().size(), 0);
    for (uint32_t number = 0; number < _usedLocations.size(); ++number) {
        const ExportLocation& location = table.locations()[number];
        for (uint32_t i = 0; i < location.lineCount; ++i) {
            const ExportLine& line = table.line(location.firstLine + i);
            files[line.function] = files[line.function] == 0 ? line.file : files[line.function];
        }
    }
    for (uint32_t number = 0; number < _usedFunctions.size(); ++number) {
        if (!_usedFunctions[number])
            continue;
        {
            pbf_writer function(_profile, profile::kFunction);
            function.add_uint64(1, number + 1);
            function.add_int64(2, table.functions()[number].name);
            function.add_int64(3, table.functions()[number].name);
            if (files[number] != 0)
                function.add_int64(4, files[number]);
        }
        flush();
    }
}

/// Last: by now all texts are known.
void PprofExporter::writeStrings()
{
    const StringTable& strings = _source->stacks().strings();
    for (uint32_t number = 0; number < strings.count(); ++number) {
        _profile.add_string(profile::kStringTable, strings.at(number));
        flush();
    }
}

void PprofExporter::writeTimes()
{
    constexpr int64_t kNsPerSecond = 1'000'000'000;
    const TimeSpan& span = _source->options().span;
    const uint64_t wholeNs = std::max(_source->sinceStart(_source->stopNs()), _source->sinceStart(_collected.lastNs));
    const uint64_t endNs = std::min(wholeNs, span.untilNs);
    // Leaks are what they were at the search.
    const uint64_t fromNs = _isLeaks ? _source->sinceStart(_collected.searchNs) : span.fromNs;
    if (_source->startSeconds() > 0 && _source->startSeconds() < INT64_MAX / kNsPerSecond / 2)
        _profile.add_int64(profile::kTimeNanos, _source->startSeconds() * kNsPerSecond + static_cast<int64_t>(fromNs));
    _profile.add_int64(profile::kDurationNanos, static_cast<int64_t>(endNs > span.fromNs ? endNs - span.fromNs : 0));
}

Status PprofExporter::write(ExportSource& source, OutputSink& out)
{
    _source = &source;
    _out = &out;
    source.read(_collected);
    _isHeap = source.instrument(kHeapRecorderId) != nullptr;
    std::vector<ValueKind> kinds{{"samples", "count"}, {"cpu", "nanoseconds"}};
    _isLeaks = source.instrument(kOrphanFinderId) != nullptr;
    if (_isLeaks)
        kinds = {{"leaked_objects", "count"}, {"leaked_space", "bytes"}};
    else if (_isHeap)
        kinds = {
            {"alloc_objects", "count"}, {"alloc_space", "bytes"}, {"inuse_objects", "count"}, {"inuse_space", "bytes"}};
    else if (_collected.hasBlocked)
        kinds.insert(kinds.end(), {{"off_cpu_samples", "count"}, {"off_cpu", "nanoseconds"}});
    writeTypes(kinds, _isLeaks ? "leaked_space" : _isHeap ? "inuse_space" : "cpu");
    writeTimes();
    std::vector<int64_t> comments;
    for (const std::string& loss : source.losses())
        comments.push_back(string(loss));
    comments.push_back(
        string("recorder: " + std::to_string(source.instruments().front().recorderCpuNs) + " ns of processor time"));
    _profile.add_packed_int64(profile::kComment, comments.begin(), comments.end());
    flush();
    writeSamples();
    writeMappings();
    writeLocations();
    writeFunctions();
    writeStrings();
    return {};
}

} // namespace

std::unique_ptr<Exporter> makePprofExporter() { return std::make_unique<PprofExporter>(); }

} // namespace vnt
