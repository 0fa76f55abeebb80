#include <algorithm>
#include <map>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"
#include "bundle/exports/KernelSpans.h"
#include "bundle/exports/StackTexts.h"
#include "bundle/exports/utf8.h"

namespace vnt {

namespace {

/// One row of a table as RFC 4180 has it: quoted where needed, lines end in CR LF.
class Row {
public:
    explicit Row(OutputSink& out) : _out(out) { }
    ~Row() { _out.write(_text + "\r\n"); }
    Row(const Row&) = delete;
    Row& operator=(const Row&) = delete;

    Row& add(std::string_view text) { return addCell(cellOf(text)); }
    /// What cellOf() made.
    Row& addCell(std::string_view cell)
    {
        separate();
        _text += cell;
        return *this;
    }
    static std::string cellOf(std::string_view text)
    {
        std::string valid = validUtf8(text);
        if (valid.find_first_of(",\"\r\n") == std::string::npos)
            return valid;
        std::string cell(1, '"');
        for (const char c : valid)
            cell.append(c == '"' ? 2 : 1, c);
        return cell + '"';
    }
    Row& add(const char* text) { return add(std::string_view(text)); }
    template <std::integral Number> Row& add(Number number)
    {
        separate();
        _text += std::to_string(number);
        return *this;
    }

private:
    void separate()
    {
        if (_hasCells)
            _text += ',';
        _hasCells = true;
    }
    OutputSink& _out;
    std::string _text;
    bool _hasCells = false;
};

constexpr const char* kUsageColumns[census::kFields] = {
    "cpu_ns",     "user_ms",       "system_ms",    "resident_kib", "shared_kib",         "swap_kib",
    "threads",    "descriptors",   "minor_faults", "major_faults", "voluntary_switches", "involuntary_switches",
    "read_bytes", "written_bytes", "state"};

/// One table: that of the instrument read. Rows in the order of the recording.
class CsvExporter final : public Exporter, private ExportHandler {
public:
    Status write(ExportSource& source, OutputSink& out) override;

private:
    struct Site {
        uint64_t allocations = 0;
        uint64_t bytes = 0;
        uint64_t liveBlocks = 0;
        uint64_t liveBytes = 0;
        uint64_t retains = 0;
        uint64_t releases = 0;
    };

    void onSample(const ExportSample& sample) override;
    void onKernelEvent(const ExportKernelEvent& event) override;
    void onAllocation(const ExportAllocation& allocation) override;
    void onFree(const ExportFree& free) override;
    void onCount(const ExportCount& count) override;
    void onSearch(const ExportSearch& search) override { _search = search.record.number; }
    void onLeak(const ExportLeak& leak) override;
    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override
    {
        writeProcess(timeNs, "usage", process, &usage, -1);
    }
    void onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        writeProcess(timeNs, "started", process, nullptr, -1);
    }
    void onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override
    {
        writeProcess(timeNs, "ended", process, nullptr, status);
    }
    void onProcessRenamed(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        writeProcess(timeNs, "renamed", process, nullptr, -1);
    }

    void writeHeader(std::string_view identifier);
    void writeProcess(uint64_t timeNs, const char* what, const census::ProcessRecord& process,
                      const census::Usage* usage, int64_t status);
    void writeSites();
    [[nodiscard]] std::string stackText(uint32_t stack);
    [[nodiscard]] const std::string& stackCell(uint32_t stack)
    {
        return _stackCells.of(stack, [this](uint32_t number) { return Row::cellOf(stackText(number)); });
    }

    ExportSource* _source = nullptr; // these are not owned: they outlive the call
    OutputSink* _out = nullptr;
    std::map<std::pair<uint32_t, uint32_t>, Site> _sites; ///< by process and stack
    uint32_t _search = 0;
    std::vector<uint32_t> _path;
    StackTexts _stackCells;
};

/// Functions, the outermost first, joined by semicolons; semicolons in names become colons.
std::string CsvExporter::stackText(uint32_t stack)
{
    const StackTable& table = _source->stacks();
    table.pathOf(stack, _path);
    std::string text;
    for (const uint32_t number : _path) {
        const ExportLocation& location = table.locations()[number];
        for (uint32_t i = location.lineCount; i-- > 0;) {
            std::string name = table.nameOf(table.line(location.firstLine + i));
            std::replace(name.begin(), name.end(), ';', ':');
            text += (text.empty() ? "" : ";") + name;
        }
    }
    return text;
}

void CsvExporter::writeHeader(std::string_view identifier)
{
    Row row(*_out);
    const auto add = [&](std::initializer_list<const char*> names) {
        for (const char* name : names)
            row.add(name);
    };
    if (identifier == kStackSamplerId) {
        add({"time_ns", "state", "pid", "tid", "process", "thread", "weight_ns", "stack"});
    } else if (identifier == kKernelTracerId) {
        add({"time_ns", "cpu", "pid", "tid", "process", "thread", "category", "event", "name", "values", "text",
             "stack"});
    } else if (identifier == kHeapRecorderId) {
        add({"pid", "process", "allocations", "bytes", "live_blocks", "live_bytes", "stack", "retains", "releases"});
    } else if (identifier == kOrphanFinderId) {
        add({"time_ns", "search", "pid", "process", "kind", "new", "address", "bytes", "holder", "allocated_ns",
             "stack"});
    } else {
        add({"time_ns", "what", "pid", "parent", "uid", "name", "executable", "status"});
        for (const char* name : kUsageColumns)
            row.add(name);
    }
}

void CsvExporter::onSample(const ExportSample& sample)
{
    const ExportThread& thread = _source->threads().threads()[sample.thread];
    Row(*_out)
        .add(_source->sinceStart(sample.timeNs))
        .add(sample.isBlocked ? "blocked" : "running")
        .add(thread.pid)
        .add(thread.tid)
        .add(_source->threads().processOf(thread).name)
        .add(thread.name)
        .add(sample.weightNs)
        .addCell(stackCell(sample.stack));
}

void CsvExporter::onKernelEvent(const ExportKernelEvent& event)
{
    const TraceEvent& what = event.event;
    const ExportThread& thread = _source->threads().threads()[event.thread];
    std::string values;
    for (size_t i = 0; i < what.type().values.size() && i < what.values().size(); ++i) {
        values += values.empty() ? "" : " ";
        values += what.type().values[i] + "=" + std::to_string(static_cast<int64_t>(what.value(i)));
    }
    Row(*_out)
        .add(_source->sinceStart(what.timeNs()))
        .add(what.cpu())
        .add(thread.pid)
        .add(thread.tid)
        .add(_source->threads().processOf(thread).name)
        .add(thread.name)
        .add(kernelCategoryOf(what.type().kind))
        .add(what.type().name)
        .add(what.type().label)
        .add(values)
        .add(what.text())
        .addCell(stackCell(event.stack));
}

void CsvExporter::onAllocation(const ExportAllocation& allocation)
{
    Site& site = _sites[{allocation.process, allocation.stack}];
    ++site.allocations;
    site.bytes += allocation.sizeBytes;
    ++site.liveBlocks;
    site.liveBytes += allocation.sizeBytes;
}

void CsvExporter::onFree(const ExportFree& free)
{
    Site& site = _sites[{free.allocation.process, free.allocation.stack}];
    --site.liveBlocks;
    site.liveBytes -= free.allocation.sizeBytes;
}

void CsvExporter::onCount(const ExportCount& count)
{
    Site& site = _sites[{count.process, count.stack}];
    const int change = heap::changeOf(count.counting);
    site.retains += change > 0;
    site.releases += change < 0;
}

void CsvExporter::writeSites()
{
    for (const auto& [key, site] : _sites) {
        const ExportProcess& process = _source->threads().processes()[key.first];
        Row(*_out)
            .add(process.pid)
            .add(process.name)
            .add(site.allocations)
            .add(site.bytes)
            .add(site.liveBlocks)
            .add(site.liveBytes)
            .addCell(stackCell(key.second))
            .add(site.retains)
            .add(site.releases);
    }
}

void CsvExporter::onLeak(const ExportLeak& leak)
{
    static constexpr const char* kKinds[orphans::kKinds] = {"root", "cycle", "held"};
    const ExportProcess& process = _source->threads().processes()[leak.process];
    char address[24];
    std::snprintf(address, sizeof address, "0x%llx", static_cast<unsigned long long>(leak.record.address));
    Row(*_out)
        .add(_source->sinceStart(leak.timeNs))
        .add(_search)
        .add(process.pid)
        .add(process.name)
        .add(kKinds[static_cast<size_t>(leak.record.kind)])
        .add(leak.record.isNew ? 1 : 0)
        .add(address)
        .add(leak.record.sizeBytes)
        .add(leak.record.holder)
        .add(_source->sinceStart(leak.record.timeNs))
        .addCell(stackCell(leak.stack));
}

void CsvExporter::writeProcess(uint64_t timeNs, const char* what, const census::ProcessRecord& process,
                               const census::Usage* usage, int64_t status)
{
    Row row(*_out);
    row.add(_source->sinceStart(timeNs)).add(what).add(process.pid).add(process.parent).add(process.uid);
    row.add(process.name).add(process.executable);
    if (status >= 0)
        row.add(status);
    else
        row.add("");
    for (size_t i = 0; i < census::kFields; ++i) {
        if (!usage)
            row.add("");
        else if (i == static_cast<size_t>(census::Field::kState))
            row.add(std::string(1, static_cast<char>((*usage)[i])));
        else
            row.add((*usage)[i]);
    }
}

Status CsvExporter::write(ExportSource& source, OutputSink& out)
{
    _source = &source;
    _out = &out;
    writeHeader(source.instruments().front().data.identifier());
    source.read(*this);
    writeSites();
    return {};
}

} // namespace

std::unique_ptr<Exporter> makeCsvExporter() { return std::make_unique<CsvExporter>(); }

} // namespace vnt
