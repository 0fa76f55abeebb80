#include <algorithm>
#include <map>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"
#include "bundle/exports/JsonWriter.h"
#include "bundle/exports/SampleOrder.h"
#include "bundle/exports/StackTexts.h"

namespace vnt {

namespace {

constexpr const char* kSchema = "https://www.speedscope.app/file-format-schema.json";

/// Bytes by process and stack.
using StackBytes = std::map<std::pair<uint32_t, uint32_t>, uint64_t>;

class Collector final : public ExportHandler {
public:
    explicit Collector(SampleSpool& spool) : _spool(spool) { }

    void onSample(const ExportSample& sample) override
    {
        SortedSample sorted;
        sorted.timeNs = sample.timeNs;
        sorted.weightNs = sample.weightNs;
        sorted.place = _samples++;
        sorted.thread = sample.thread;
        sorted.stack = sample.stack;
        sorted.isBlocked = sample.isBlocked ? 1 : 0;
        sorted.group = sample.thread * 2 + sorted.isBlocked;
        _spool.add(sorted);
    }
    void onAllocation(const ExportAllocation& allocation) override
    {
        const std::pair key(allocation.process, allocation.stack);
        allocated[key] += allocation.sizeBytes;
        live[key] += allocation.sizeBytes;
    }
    void onFree(const ExportFree& free) override
    {
        live[{free.allocation.process, free.allocation.stack}] -= free.allocation.sizeBytes;
    }
    /// Each search tells all leaks: the last one counts.
    void onSearch(const ExportSearch&) override { leaked.clear(); }
    void onLeak(const ExportLeak& leak) override { leaked[{leak.process, leak.stack}] += leak.record.sizeBytes; }

    StackBytes allocated;
    StackBytes live;
    StackBytes leaked;

private:
    SampleSpool& _spool;
    uint64_t _samples = 0;
};

class SpeedscopeExporter final : public Exporter {
public:
    Status write(ExportSource& source, OutputSink& out) override;

private:
    using Samples = std::span<const SortedSample>;

    void makeFrames();
    void writeFrames();
    void writeThread(Samples samples);
    void writeBytes(const char* what, const StackBytes& bytes);
    void writeStack(uint32_t stack)
    {
        _json->raw(_stackTexts.of(stack, [this](uint32_t number) { return stackText(number); }));
    }
    [[nodiscard]] std::string stackText(uint32_t stack);
    void beginProfile(const std::string& name, const char* unit, uint64_t startValue, uint64_t endValue);
    template <typename Step> uint64_t forEachStep(Samples samples, Step step) const;

    ExportSource* _source = nullptr; // these are not owned: they outlive the call
    JsonWriter* _json = nullptr;
    std::vector<uint32_t> _frameOf; ///< by function
    std::vector<std::pair<uint32_t, std::string>> _frames; ///< name and, where it is known, file
    std::vector<uint32_t> _path;
    StackTexts _stackTexts;
};

/// One frame a function: what differs in the line only would be told apart as if it were two.
void SpeedscopeExporter::makeFrames()
{
    StackTable& table = _source->stacks();
    std::vector<uint32_t> files(table.functions().size(), 0);
    for (const ExportLocation& location : table.locations()) {
        for (uint32_t i = 0; i < location.lineCount; ++i) {
            const ExportLine& line = table.line(location.firstLine + i);
            files[line.function] = files[line.function] == 0 ? line.file : files[line.function];
        }
    }
    std::map<std::pair<uint32_t, std::string>, uint32_t> numbers;
    for (uint32_t number = 0; number < files.size(); ++number) {
        const ExportFunction& function = table.functions()[number];
        uint32_t file = files[number];
        if (file == 0 && function.module != kNoModule)
            file = table.modules()[function.module].path;
        const uint32_t name =
            function.isKernel ? table.strings().add(table.text(function.name) + "_[k]") : function.name;
        const auto [known, isNew] =
            numbers.try_emplace({name, table.text(file)}, static_cast<uint32_t>(_frames.size()));
        if (isNew)
            _frames.emplace_back(known->first);
        _frameOf.push_back(known->second);
    }
}

void SpeedscopeExporter::writeFrames()
{
    _json->key("shared").beginObject().key("frames").beginArray();
    for (const auto& [name, file] : _frames) {
        _json->newLine().beginObject().member("name", _source->stacks().text(name));
        if (!file.empty())
            _json->member("file", file);
        _json->endObject();
    }
    _json->endArray().endObject();
}

/// The frames' numbers, the outermost first, as a JSON array.
std::string SpeedscopeExporter::stackText(uint32_t stack)
{
    const StackTable& table = _source->stacks();
    std::string text;
    table.pathOf(stack, _path);
    for (const uint32_t number : _path) {
        const ExportLocation& location = table.locations()[number];
        for (uint32_t i = location.lineCount; i-- > 0;)
            text += (text.empty() ? "[" : ",") + std::to_string(_frameOf[table.line(location.firstLine + i).function]);
    }
    return text.empty() ? "[]" : text + "]";
}

void SpeedscopeExporter::beginProfile(const std::string& name, const char* unit, uint64_t startValue, uint64_t endValue)
{
    _json->newLine().beginObject();
    _json->member("type", "sampled").member("name", name).member("unit", unit);
    _json->member("startValue", startValue).member("endValue", endValue);
}

/// Passes on what happened one after the other, `step(stack, ns)`: stack 0 is the time in between. Answers where it
/// ends. Samples stand for the time before them; where they come closer than they weigh, they push the later ones on,
/// and the next gap takes that back.
template <typename Step> uint64_t SpeedscopeExporter::forEachStep(Samples samples, Step step) const
{
    uint64_t atNs = _source->options().span.fromNs;
    for (const SortedSample& sample : samples) {
        const uint64_t endNs = _source->sinceStart(sample.timeNs);
        const uint64_t beginNs = endNs - std::min(endNs, sample.weightNs);
        // Less than half a sample is the clock's jitter.
        if (beginNs > atNs && beginNs - atNs > sample.weightNs / 2) {
            step(0u, beginNs - atNs);
            atNs = beginNs;
        }
        step(sample.stack, sample.weightNs);
        atNs += sample.weightNs;
    }
    return atNs;
}

void SpeedscopeExporter::writeThread(Samples samples)
{
    const ExportThread& thread = _source->threads().threads()[samples.front().thread];
    std::string name = _source->threads().processOf(thread).name + " (" + std::to_string(thread.pid) + ") / "
        + thread.name + " (" + std::to_string(thread.tid) + ")";
    if (samples.front().isBlocked != 0)
        name += " off-cpu";
    const uint64_t endNs = forEachStep(samples, [](uint32_t, uint64_t) {});
    beginProfile(name, "nanoseconds", _source->options().span.fromNs, endNs);
    _json->key("samples").beginArray();
    forEachStep(samples, [this](uint32_t stack, uint64_t) { writeStack(stack); });
    _json->endArray().key("weights").beginArray();
    forEachStep(samples, [this](uint32_t, uint64_t ns) { _json->value(ns); });
    _json->endArray().endObject();
}

void SpeedscopeExporter::writeBytes(const char* what, const StackBytes& bytes)
{
    for (auto from = bytes.begin(); from != bytes.end();) {
        const uint32_t process = from->first.first;
        const auto to = bytes.lower_bound({process + 1, 0});
        uint64_t sum = 0;
        for (auto at = from; at != to; ++at)
            sum += at->second;
        const ExportProcess& known = _source->threads().processes()[process];
        beginProfile(known.name + " (" + std::to_string(known.pid) + ") " + what, "bytes", 0, sum);
        _json->key("samples").beginArray();
        for (auto at = from; at != to; ++at) {
            if (at->second != 0)
                writeStack(at->first.second);
        }
        _json->endArray().key("weights").beginArray();
        for (auto at = from; at != to; ++at) {
            if (at->second != 0)
                _json->value(at->second);
        }
        _json->endArray().endObject();
        from = to;
    }
}

Status SpeedscopeExporter::write(ExportSource& source, OutputSink& out)
{
    SampleSpool spool(source.options().scratchDirectory);
    Collector collected(spool);
    source.read(collected);
    ASSIGN_OR_RETURN(const Samples samples, spool.sorted());
    JsonWriter json(out);
    _source = &source;
    _json = &json;
    makeFrames();

    std::vector<Samples> threads;
    size_t busiest = 0;
    for (size_t from = 0; from < samples.size();) {
        size_t to = from;
        while (to < samples.size() && samples[to].group == samples[from].group)
            ++to;
        threads.push_back(samples.subspan(from, to - from));
        const bool isRunning = samples[from].isBlocked == 0;
        if (isRunning && (threads[busiest].front().isBlocked != 0 || to - from > threads[busiest].size()))
            busiest = threads.size() - 1;
        from = to;
    }
    json.beginObject().member("$schema", kSchema).member("exporter", "rumbel@1.0.0");
    std::string name = source.bundle().path();
    name.erase(0, name.rfind('/') + 1);
    for (const std::string& loss : source.losses())
        name += "; " + loss;
    json.member("name", name).member("activeProfileIndex", busiest);
    writeFrames();
    json.key("profiles").beginArray();
    for (const Samples& thread : threads)
        writeThread(thread);
    writeBytes("allocated", collected.allocated);
    writeBytes("live at the end", collected.live);
    writeBytes("leaked", collected.leaked);
    if (threads.empty() && collected.allocated.empty() && collected.leaked.empty()) {
        beginProfile("nothing recorded", "none", 0, 0); // without a profile the file would not open
        json.key("samples").beginArray().endArray().key("weights").beginArray().endArray().endObject();
    }
    json.endArray().endObject();
    return {};
}

} // namespace

std::unique_ptr<Exporter> makeSpeedscopeExporter() { return std::make_unique<SpeedscopeExporter>(); }

} // namespace vnt
