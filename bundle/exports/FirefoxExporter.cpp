#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"
#include "bundle/exports/FirefoxThreads.h"
#include "bundle/exports/KernelSpans.h"

namespace vnt {

namespace {

/// The newest version that all readers know which read this format at all; newer ones upgrade it.
constexpr int kProcessedVersion = 60;
constexpr int kGeckoVersion = 31;

/// A JSON object made in memory: what a marker says.
class MarkerData {
public:
    explicit MarkerData(const char* type) { add("type", type); }
    MarkerData& add(const char* key, std::string_view text)
    {
        appendJsonString(addKey(key), text);
        return *this;
    }
    MarkerData& number(const char* key, uint64_t value)
    {
        addKey(key) += std::to_string(value);
        return *this;
    }
    /// As text: numbers of 64 bits are not exact there.
    MarkerData& address(uint64_t value)
    {
        char hex[24];
        std::snprintf(hex, sizeof hex, "0x%" PRIx64, value);
        return add("address", hex);
    }
    MarkerData& cause(uint64_t timeNs, uint32_t row)
    {
        addKey("cause") +=
            "{\"time\":" + millisecondsText(static_cast<int64_t>(timeNs)) + ",\"stack\":" + std::to_string(row) + "}";
        return *this;
    }
    [[nodiscard]] std::string text() const { return _text + "}"; }

private:
    std::string& addKey(const char* key)
    {
        _text += _text.empty() ? "{" : ",";
        appendJsonString(_text, key);
        return _text += ':';
    }
    std::string _text;
};

/// Counters of a process: what the viewer knows to draw by name and category.
struct Counter {
    census::Field field;
    const char* name;
    const char* category;
    const char* description;
    int64_t scale;
};
constexpr Counter kCounters[] = {
    {census::Field::kResidentKiB, "resident", "Memory", "Memory of the process that is in use", 1024},
    {census::Field::kCpuNs, "processCPU", "CPU", "Processor time of the process", 1},
    {census::Field::kReadBytes, "read", "Bandwidth", "Bytes read from storage", 1},
    {census::Field::kWrittenBytes, "written", "Bandwidth", "Bytes written to storage", 1},
};
constexpr uint32_t kCounterCount = std::size(kCounters);
/// Counters of processes have numbers pid * kCounterCount + which; the machine's is behind all.
constexpr uint32_t kMachineMemory = ~0u;
constexpr uint32_t kLargestPid = 1u << 22; // PID_MAX_LIMIT, linux/threads.h

class FirefoxExporter final : public Exporter, private ExportHandler {
public:
    Status write(ExportSource& source, OutputSink& out) override;

private:
    struct Begun {
        uint64_t beginNs = 0;
        std::string name;
        std::string arguments;
        uint32_t stack = 0;
        FirefoxCategory category = FirefoxCategory::kOther;
    };
    using Spans = KernelSpans<Begun>;
    struct Parts {
        explicit Parts(ExportSource& source)
            : tables(source),
              threads(source, tables),
              counters(source.options().scratchDirectory)
        {
        }
        FirefoxTables tables;
        FirefoxThreads threads;
        Spans spans;
        RecordSpool<SortedChange> counters;
        uint64_t place = 0;
        uint64_t lastNs = 0;
    };

    void onSample(const ExportSample& sample) override { _parts->threads.addSample(sample); }
    void onKernelEvent(const ExportKernelEvent& event) override;
    void onAllocation(const ExportAllocation& allocation) override;
    void onFree(const ExportFree& free) override;
    void onFault(const ExportFault& fault) override;
    void onLeak(const ExportLeak& leak) override;
    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override;
    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override;
    void onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process) override;
    void onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override;
    void onLost(uint64_t timeNs, std::string_view what, uint64_t count) override;

    void endSpans(uint32_t thread, size_t kept, uint64_t timeNs, std::string_view result);
    void addInstant(const ExportKernelEvent& event);
    void writeMeta();
    void writeSchemas();
    Status writeCounters();
    void writeCounter(uint32_t number, std::span<const SortedChange> values);
    [[nodiscard]] uint64_t since(uint64_t timeNs) const { return _source->sinceStart(timeNs); }

    ExportSource* _source = nullptr; // these are not owned: they outlive the call
    JsonWriter* _json = nullptr;
    std::unique_ptr<Parts> _parts;
};

std::string argumentsOf(const TraceEvent& event)
{
    std::string text;
    for (size_t i = 0; i < event.type().values.size() && i < event.values().size(); ++i)
        text += (text.empty() ? "" : ", ") + event.type().values[i] + ": "
            + std::to_string(static_cast<int64_t>(event.value(i)));
    return text;
}

FirefoxCategory categoryOf(trace::EventKind kind)
{
    const bool isScheduling = kind == trace::EventKind::kSwitch || kind == trace::EventKind::kWakeup;
    return isScheduling ? FirefoxCategory::kOffProcessor : FirefoxCategory::kKernel;
}

void FirefoxExporter::onKernelEvent(const ExportKernelEvent& event)
{
    _parts->lastNs = std::max(_parts->lastNs, event.event.timeNs());
    const KernelSpanEnd span = kernelSpanOf(event.event.type().kind);
    std::vector<Spans::Span>& open = _parts->spans.of(event.thread);
    const size_t own = Spans::keptBy(open, span.group);
    if (span.kind == KernelSpanEnd::Kind::kBegin && own < Spans::kMaxDepth) {
        endSpans(event.thread, own, event.event.timeNs(), {});
        open.push_back({span.group,
                        {event.event.timeNs(), std::string(kernelEventName(event.event)), argumentsOf(event.event),
                         event.stack, categoryOf(event.event.type().kind)}});
    } else if (span.kind == KernelSpanEnd::Kind::kEnd && own < open.size()) {
        endSpans(event.thread, own + 1, event.event.timeNs(), {});
        endSpans(event.thread, own, event.event.timeNs(), argumentsOf(event.event));
    } else {
        addInstant(event);
    }
}

void FirefoxExporter::endSpans(uint32_t thread, size_t kept, uint64_t timeNs, std::string_view result)
{
    std::vector<Spans::Span>& open = _parts->spans.of(thread);
    for (; open.size() > kept; open.pop_back()) {
        const Begun& begun = open.back().open;
        MarkerData data("kernel");
        data.add("arguments", begun.arguments);
        if (!result.empty())
            data.add("result", result);
        if (begun.stack != 0)
            data.cause(since(begun.beginNs), _parts->tables.rowOf(begun.stack));
        _parts->threads.addMarker(_parts->threads.entryOf(thread), begun.beginNs, timeNs, begun.name, begun.category,
                                  data.text());
    }
}

void FirefoxExporter::addInstant(const ExportKernelEvent& event)
{
    const TraceEvent& what = event.event;
    MarkerData data("kernel");
    data.add("arguments", argumentsOf(what));
    if (!what.text().empty())
        data.add("text", what.text());
    if (event.stack != 0)
        data.cause(since(what.timeNs()), _parts->tables.rowOf(event.stack));
    _parts->threads.addMarker(_parts->threads.entryOf(event.thread), what.timeNs(), what.timeNs(),
                              kernelEventName(what), categoryOf(what.type().kind), data.text());
}

void FirefoxExporter::onAllocation(const ExportAllocation& allocation)
{
    _parts->threads.addHeapChange(allocation.process, allocation.timeNs, static_cast<int64_t>(allocation.sizeBytes),
                                  allocation.stack, allocation.address);
}

void FirefoxExporter::onFree(const ExportFree& free)
{
    const ExportAllocation& block = free.allocation;
    _parts->threads.addHeapChange(block.process, free.timeNs, -static_cast<int64_t>(block.sizeBytes), block.stack,
                                  block.address);
}

void FirefoxExporter::onFault(const ExportFault& fault)
{
    MarkerData data("heap");
    data.address(fault.address);
    if (fault.faultStack != 0)
        data.cause(since(fault.timeNs), _parts->tables.rowOf(fault.faultStack));
    _parts->threads.addMarker(_parts->threads.mainOf(fault.process), fault.timeNs, fault.timeNs, nameOf(fault.fault),
                              FirefoxCategory::kMemory, data.text());
}

/// From its allocation to the search, with the allocation's stack.
void FirefoxExporter::onLeak(const ExportLeak& leak)
{
    if (!leak.record.isNew)
        return; // told at an earlier search
    static constexpr const char* kNames[orphans::kKinds] = {"leak", "leaked cycle", "held by a leak"};
    MarkerData data("leak");
    data.number("bytes", leak.record.sizeBytes).address(leak.record.address);
    data.cause(since(leak.record.timeNs), _parts->tables.rowOf(leak.stack));
    _parts->threads.addMarker(_parts->threads.mainOf(leak.process), std::min(leak.record.timeNs, leak.timeNs),
                              leak.timeNs, kNames[static_cast<size_t>(leak.record.kind)], FirefoxCategory::kMemory,
                              data.text());
}

void FirefoxExporter::onSweep(uint64_t timeNs, const census::SweepRecord& sweep)
{
    (void)_parts->threads.recordingEntry();
    _parts->counters.add(
        {timeNs, _parts->place++, static_cast<int64_t>(sweep.availableKiB * 1024), 0, kMachineMemory, 0});
}

void FirefoxExporter::onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage)
{
    if (process.pid > kLargestPid)
        return;
    for (uint32_t i = 0; i < kCounterCount; ++i)
        _parts->counters.add({timeNs, _parts->place++, at(usage, kCounters[i].field) * kCounters[i].scale, 0,
                              process.pid * kCounterCount + i, 0});
}

void FirefoxExporter::onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process)
{
    _parts->threads.addMarker(_parts->threads.recordingEntry(), timeNs, timeNs, "process started",
                              FirefoxCategory::kOther,
                              MarkerData("process").number("pid", process.pid).add("name", process.name).text());
}

void FirefoxExporter::onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t)
{
    _parts->threads.addMarker(_parts->threads.recordingEntry(), timeNs, timeNs, "process ended",
                              FirefoxCategory::kOther,
                              MarkerData("process").number("pid", process.pid).add("name", process.name).text());
}

void FirefoxExporter::onLost(uint64_t timeNs, std::string_view what, uint64_t count)
{
    _parts->threads.addMarker(_parts->threads.recordingEntry(), timeNs, timeNs, "Lost", FirefoxCategory::kOther,
                              MarkerData("lost").add("what", what).number("count", count).text());
}

/// What the viewer shows of each type of marker.
void FirefoxExporter::writeSchemas()
{
    struct Field {
        const char* key;
        const char* label;
        const char* format;
    };
    struct Schema {
        const char* name;
        std::vector<Field> fields;
    };
    const std::vector<Schema> schemas = {
        {"kernel", {{"arguments", "Arguments", "string"}, {"result", "Result", "string"}, {"text", "Text", "string"}}},
        {"heap", {{"address", "Block", "string"}}},
        {"leak", {{"bytes", "Bytes", "bytes"}, {"address", "Block", "string"}}},
        {"process", {{"pid", "Process", "integer"}, {"name", "Name", "string"}}},
        {"lost", {{"what", "What", "string"}, {"count", "Records", "integer"}}},
    };
    _json->newLine().key("markerSchema").beginArray();
    for (const Schema& schema : schemas) {
        _json->newLine().beginObject().member("name", schema.name).key("display").beginArray();
        for (const char* place : {"marker-chart", "marker-table", "timeline-overview"})
            _json->value(place);
        _json->endArray().key("fields").beginArray();
        for (const Field& field : schema.fields) {
            _json->beginObject().member("key", field.key).member("label", field.label);
            _json->member("format", field.format).endObject();
        }
        _json->endArray().endObject();
    }
    _json->endArray();
}

void FirefoxExporter::writeMeta()
{
    constexpr int64_t kMsPerSecond = 1000;
    const ExportInstrument* sampler = _source->instrument(kStackSamplerId);
    const uint64_t intervalNs = sampler && sampler->intervalNs != 0 ? sampler->intervalNs : 1'000'000;
    const int64_t seconds = std::clamp<int64_t>(_source->startSeconds(), 0, int64_t{1} << 40);
    std::string product = _source->bundle().path();
    product.erase(0, product.rfind('/') + 1);
    _json->key("meta").beginObject().key("interval").milliseconds(static_cast<int64_t>(intervalNs));
    _json->member("startTime", seconds * kMsPerSecond).member("processType", 0).member("product", product);
    _json->member("stackwalk", 1).member("version", kGeckoVersion);
    _json->member("preprocessedProfileVersion", kProcessedVersion).member("symbolicated", true);
    _json->member("importedFrom", "rumbel").member("usesOnlyOneStackType", true);
    _json->member("sourceCodeIsNotOnSearchfox", true).key("sampleUnits").beginObject();
    _json->member("time", "ms").member("eventDelay", "ms").member("threadCPUDelta", "ns").endObject();
    _json->newLine().key("categories").beginArray();
    // In the order of FirefoxCategory.
    for (const auto& [name, color] :
         {std::pair("Other", "grey"), std::pair("User", "yellow"), std::pair("Kernel", "orange"),
          std::pair("Off processor", "blue"), std::pair("Memory", "purple")}) {
        _json->beginObject().member("name", name).member("color", color);
        _json->key("subcategories").beginArray().value("Other").endArray().endObject();
    }
    _json->endArray();
    writeSchemas();
    _json->endObject();
}

Status FirefoxExporter::writeCounters()
{
    ASSIGN_OR_RETURN(const std::span<const SortedChange> all, _parts->counters.sorted());
    _json->newLine().key("counters").beginArray();
    for (size_t from = 0; from < all.size();) {
        size_t to = from;
        while (to < all.size() && all[to].entry == all[from].entry)
            ++to;
        writeCounter(all[from].entry, all.subspan(from, to - from));
        from = to;
    }
    _json->endArray();
    return {};
}

/// Only of processes that stand in the file, and the machine's. Rows are changes; of the first one the viewer shows
/// nothing, so it says nothing.
void FirefoxExporter::writeCounter(uint32_t number, std::span<const SortedChange> values)
{
    const bool isMachine = number == kMachineMemory;
    const uint32_t pid = isMachine ? 0 : number / kCounterCount;
    if (!isMachine && !_parts->threads.hasProcess(pid))
        return;
    static constexpr Counter kMachine{census::Field::kCpuNs, "available", "Memory",
                                      "Memory of the machine that could be used", 1};
    const Counter& counter = isMachine ? kMachine : kCounters[number % kCounterCount];
    const uint32_t main = isMachine ? _parts->threads.recordingEntry() : _parts->threads.mainOfPid(pid);
    _json->newLine().beginObject().member("name", counter.name).member("category", counter.category);
    _json->member("description", counter.description).member("pid", std::to_string(pid));
    _json->member("mainThreadIndex", main).key("samples").beginObject().member("length", values.size() + 1);
    _json->key("time").beginArray().milliseconds(static_cast<int64_t>(since(values.front().timeNs)));
    for (const SortedChange& value : values)
        _json->milliseconds(static_cast<int64_t>(since(value.timeNs)));
    _json->endArray().key("count").beginArray().value(0);
    // Levels begin at what they are, growing ones at nothing.
    int64_t before = std::string_view(counter.category) == "Memory" ? 0 : values.front().amount;
    for (const SortedChange& value : values) {
        _json->value(value.amount - before);
        before = value.amount;
    }
    _json->endArray().endObject().endObject();
}

Status FirefoxExporter::write(ExportSource& source, OutputSink& out)
{
    JsonWriter json(out);
    _source = &source;
    _json = &json;
    _parts = std::make_unique<Parts>(source);
    source.read(*this);
    std::vector<uint32_t> open;
    for (const auto& [thread, spans] : _parts->spans.all())
        open.push_back(thread);
    std::sort(open.begin(), open.end()); // not in the order of a hash table
    for (const uint32_t thread : open)
        endSpans(thread, 0, _parts->lastNs, {});

    json.beginObject();
    writeMeta();
    _parts->tables.writeLibraries(json);
    _parts->tables.writeShared(json);
    RETURN_IF_ERROR(_parts->threads.write(json));
    RETURN_IF_ERROR(writeCounters());
    json.endObject();
    return {};
}

} // namespace

std::unique_ptr<Exporter> makeFirefoxExporter() { return std::make_unique<FirefoxExporter>(); }

} // namespace vnt
