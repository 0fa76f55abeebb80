#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"
#include "bundle/exports/JsonWriter.h"
#include "bundle/exports/ScratchFile.h"

namespace vnt {

namespace {

/// Raised when a key changes its meaning.
constexpr int kVersion = 1;

/// Everything a bundle holds. Series first, in the order they are read; the tables that their numbers refer to behind
/// them, when they are known. Documented in docs/export.md.
class JsonExporter final : public Exporter, private ExportHandler {
public:
    Status write(ExportSource& source, OutputSink& out) override;

private:
    void onSample(const ExportSample& sample) override;
    void onKernelEvent(const ExportKernelEvent& event) override;
    void onAllocation(const ExportAllocation& allocation) override;
    void onFree(const ExportFree& free) override;
    void onFault(const ExportFault& fault) override;
    void onCount(const ExportCount& count) override;
    void onSearch(const ExportSearch& search) override;
    void onLeak(const ExportLeak& leak) override;
    void onNotSearched(uint64_t timeNs, uint32_t process, std::string_view reason) override;
    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override;
    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override;
    void onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process) override;
    void onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override;
    void onProcessRenamed(uint64_t timeNs, const census::ProcessRecord& process) override;
    void onLost(uint64_t timeNs, std::string_view what, uint64_t count) override;

    /// The next row of a series; the series before it ends.
    JsonWriter& row(const char* series);
    JsonWriter& censusRow(uint64_t timeNs, const char* what, const census::ProcessRecord& process);
    void endSeries();
    void writeInstruments();
    void writeThreads();
    void writeCode();
    void writeStacks();
    [[nodiscard]] uint64_t since(uint64_t timeNs) const { return _source->sinceStart(timeNs); }

    ExportSource* _source = nullptr; // these are not owned: they outlive the call
    JsonWriter* _json = nullptr;
    std::string _series; ///< the open one; empty: none
    std::unique_ptr<ScratchFile> _losses; ///< rows of a series that all instruments add to
};

JsonWriter& JsonExporter::row(const char* series)
{
    if (_series != series) {
        endSeries();
        _series = series;
        _json->newLine().key(series).beginArray();
    }
    return _json->newLine();
}

void JsonExporter::endSeries()
{
    if (!_series.empty())
        _json->endArray();
    _series.clear();
}

void JsonExporter::onSample(const ExportSample& sample)
{
    row("samples").beginArray().value(since(sample.timeNs)).value(sample.thread).value(sample.stack);
    _json->value(sample.weightNs).value(sample.isBlocked ? 1 : 0).endArray();
}

void JsonExporter::onKernelEvent(const ExportKernelEvent& event)
{
    const TraceEvent& what = event.event;
    row("kernel_events").beginObject().member("time_ns", since(what.timeNs())).member("cpu", what.cpu());
    _json->member("thread", event.thread).member("event", what.type().name);
    if (what.isOutside())
        _json->member("outside", true);
    if (!what.type().label.empty())
        _json->member("call", what.type().label);
    _json->key("values").beginObject();
    const bool areAddresses = (what.type().flags & trace::TypeRecord::kAddresses) != 0;
    for (size_t i = 0; i < what.type().values.size() && i < what.values().size(); ++i) {
        _json->key(what.type().values[i]);
        // Numbers past 53 bits do not survive most readers.
        if (areAddresses)
            _json->value(std::to_string(what.value(i)));
        else
            _json->value(static_cast<int64_t>(what.value(i)));
    }
    _json->endObject();
    if (!what.text().empty())
        _json->member("text", what.text());
    if (event.stack != 0)
        _json->member("stack", event.stack);
    _json->endObject();
}

void JsonExporter::onAllocation(const ExportAllocation& allocation)
{
    row("heap").beginArray().value("allocate").value(since(allocation.timeNs)).value(allocation.process);
    _json->value(allocation.stack).value(allocation.sizeBytes).value(allocation.address);
    _json->value(static_cast<int>(allocation.function)).endArray();
}

void JsonExporter::onFree(const ExportFree& free)
{
    row("heap").beginArray().value("free").value(since(free.timeNs)).value(free.allocation.process);
    _json->value(free.allocation.stack).value(free.allocation.sizeBytes).value(free.allocation.address).endArray();
}

void JsonExporter::onFault(const ExportFault& fault)
{
    static constexpr const char* kNames[heap::kFaults] = {"freed_twice", "written_after_free", "retained_after_free",
                                                          "released_after_free"};
    row("heap").beginArray().value(kNames[static_cast<size_t>(fault.fault)]).value(since(fault.timeNs));
    _json->value(fault.process).value(fault.address).value(fault.byte);
    _json->value(fault.allocateStack).value(fault.freeStack).value(fault.faultStack).endArray();
}

void JsonExporter::onCount(const ExportCount& count)
{
    static constexpr const char* kNames[] = {"release", "sink", "retain"};
    row("heap").beginArray().value(kNames[heap::changeOf(count.counting) + 1]).value(since(count.timeNs));
    _json->value(count.process).value(count.stack).value(count.thread).value(count.object).value(count.before);
    _json->value(nameOf(count.counting)).endArray();
}

void JsonExporter::onSearch(const ExportSearch& search)
{
    const orphans::SearchRecord& record = search.record;
    row("leaks").beginObject().member("what", "search").member("time_ns", since(search.timeNs));
    _json->member("search", record.number).member("process", search.process).member("leaks", record.leaks);
    _json->member("leaked_bytes", record.leakedBytes).member("blocks", record.blocks);
    _json->member("block_bytes", record.blockBytes).member("pause_ns", record.pauseNs);
    _json->member("verdict_ns", record.verdictNs).member("unreadable_bytes", record.unreadableBytes).endObject();
}

void JsonExporter::onLeak(const ExportLeak& leak)
{
    static constexpr const char* kKinds[orphans::kKinds] = {"root", "cycle", "held"};
    const orphans::LeakRecord& record = leak.record;
    row("leaks").beginObject().member("what", "leak").member("kind", kKinds[static_cast<size_t>(record.kind)]);
    _json->member("new", record.isNew).member("address", record.address).member("bytes", record.sizeBytes);
    _json->member("holder", record.holder).member("allocated_ns", since(record.timeNs)).member("stack", leak.stack);
    if (!record.contents.empty()) {
        std::string hex;
        for (const char c : record.contents) {
            constexpr const char* kDigits = "0123456789abcdef";
            hex.push_back(kDigits[static_cast<unsigned char>(c) >> 4]);
            hex.push_back(kDigits[static_cast<unsigned char>(c) & 15]);
        }
        _json->member("contents_hex", hex);
    }
    _json->endObject();
}

void JsonExporter::onNotSearched(uint64_t timeNs, uint32_t process, std::string_view reason)
{
    row("leaks").beginObject().member("what", "not searched").member("time_ns", since(timeNs));
    _json->member("process", process).member("reason", reason).endObject();
}

void JsonExporter::onSweep(uint64_t timeNs, const census::SweepRecord& sweep)
{
    row("census").beginObject().member("what", "sweep").member("time_ns", since(timeNs));
    _json->member("processes", sweep.processes).member("busy_ms", sweep.busyMs).member("whole_ms", sweep.wholeMs);
    _json->member("available_kib", sweep.availableKiB).endObject();
}

JsonWriter& JsonExporter::censusRow(uint64_t timeNs, const char* what, const census::ProcessRecord& process)
{
    row("census").beginObject().member("what", what).member("time_ns", since(timeNs));
    return _json->member("pid", process.pid);
}

void JsonExporter::onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage)
{
    static constexpr const char* kKeys[census::kFields - 1] = {
        "cpu_ns",     "user_ms",      "system_ms",    "resident_kib", "shared_kib",         "swap_kib",
        "threads",    "descriptors",  "minor_faults", "major_faults", "voluntary_switches", "involuntary_switches",
        "read_bytes", "written_bytes"};
    censusRow(timeNs, "usage", process).member("name", process.name);
    for (size_t i = 0; i + 1 < census::kFields; ++i)
        _json->member(kKeys[i], usage[i]);
    _json->member("state", std::string(1, static_cast<char>(at(usage, census::Field::kState)))).endObject();
}

void JsonExporter::onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process)
{
    censusRow(timeNs, "started", process).member("name", process.name).member("executable", process.executable);
    _json->member("parent", process.parent).member("uid", process.uid).endObject();
}

void JsonExporter::onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status)
{
    censusRow(timeNs, "ended", process);
    if (status >= 0)
        _json->member("status", status);
    _json->endObject();
}

void JsonExporter::onProcessRenamed(uint64_t timeNs, const census::ProcessRecord& process)
{
    censusRow(timeNs, "renamed", process).member("name", process.name).member("executable", process.executable);
    _json->endObject();
}

void JsonExporter::onLost(uint64_t timeNs, std::string_view what, uint64_t count)
{
    std::string text = _losses->sizeBytes() == 0 ? "\n[" : ",\n[";
    text += std::to_string(since(timeNs)) + ",";
    appendJsonString(text, what);
    _losses->append(text + "," + std::to_string(count) + "]");
}

void JsonExporter::writeInstruments()
{
    _json->newLine().key("instruments").beginArray();
    for (const ExportInstrument& instrument : _source->instruments()) {
        _json->newLine().beginObject().member("name", instrument.name);
        if (const auto pid = instrument.data.pid())
            _json->member("pid", *pid);
        _json->member("interval_ns", instrument.intervalNs).member("messages", instrument.messages.messages);
        _json->member("recorder_cpu_ns", instrument.recorderCpuNs).key("lost").beginObject();
        for (const auto& [cause, count] : instrument.lost)
            _json->member(cause, count);
        _json->endObject().endObject();
    }
    _json->endArray();
}

void JsonExporter::writeThreads()
{
    _json->newLine().key("processes").beginArray();
    for (const ExportProcess& process : _source->threads().processes()) {
        _json->newLine().beginObject().member("pid", process.pid).member("name", process.name);
        _json->member("executable", process.executable).endObject();
    }
    _json->endArray().newLine().key("threads").beginArray();
    for (const ExportThread& thread : _source->threads().threads()) {
        _json->newLine().beginObject().member("process", thread.process).member("tid", thread.tid);
        _json->member("name", thread.name).endObject();
    }
    _json->endArray();
}

void JsonExporter::writeCode()
{
    const StackTable& table = _source->stacks();
    _json->newLine().key("modules").beginArray();
    for (const ExportModule& module : table.modules()) {
        _json->newLine().beginObject().member("path", table.text(module.path));
        _json->member("build_id", module.buildId).endObject();
    }
    _json->endArray().newLine().key("functions").beginArray();
    for (const ExportFunction& function : table.functions()) {
        _json->newLine().beginObject().member("name", table.text(function.name));
        if (function.module != kNoModule)
            _json->member("module", function.module);
        if (function.isKernel)
            _json->member("kernel", true);
        _json->endObject();
    }
    _json->endArray();
}

/// A row a location: address in its module, then function, file and line of each function, the innermost first.
void JsonExporter::writeStacks()
{
    const StackTable& table = _source->stacks();
    _json->newLine().key("locations").beginArray();
    for (const ExportLocation& location : table.locations()) {
        _json->newLine().beginArray().value(location.address);
        for (uint32_t i = 0; i < location.lineCount; ++i) {
            const ExportLine& line = table.line(location.firstLine + i);
            _json->value(line.function).value(table.text(line.file)).value(line.line);
        }
        _json->endArray();
    }
    _json->endArray().newLine().key("stacks").beginArray();
    for (const ExportStack& stack : table.stacks()) // number 0 is the empty one
        _json->newLine().beginArray().value(stack.caller).value(stack.location).endArray();
    _json->endArray();
}

Status JsonExporter::write(ExportSource& source, OutputSink& out)
{
    JsonWriter json(out);
    _source = &source;
    _json = &json;
    _losses = std::make_unique<ScratchFile>(source.options().scratchDirectory);
    json.beginObject().member("version", kVersion).member("start_time", source.startSeconds());
    json.member("start_ns", source.startNs()).member("stop_ns", source.stopNs());
    source.read(*this);
    endSeries();
    ASSIGN_OR_RETURN(const std::span<char> losses, _losses->map());
    json.newLine().key("lost").beginArray();
    if (!losses.empty())
        json.raw({losses.data(), losses.size()});
    json.endArray();
    writeInstruments();
    writeThreads();
    writeCode();
    writeStacks();
    json.newLine().endObject();
    return {};
}

} // namespace

std::unique_ptr<Exporter> makeJsonExporter() { return std::make_unique<JsonExporter>(); }

} // namespace vnt
