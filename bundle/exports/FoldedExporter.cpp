#include <algorithm>
#include <map>
#include <unordered_map>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"

namespace vnt {

namespace {

constexpr uint64_t kNsPerUs = 1000;

/// Weights by root and call path.
class Weights final : public ExportHandler {
public:
    explicit Weights(const ExportOptions& options) : _options(options) { }

    void onSample(const ExportSample& sample) override
    {
        if (sample.isBlocked == _options.offCpu)
            _weights[uint64_t{sample.thread} << 32 | sample.stack] += sample.isBlocked ? sample.weightNs : 1;
    }
    void onAllocation(const ExportAllocation& allocation) override
    {
        _weights[uint64_t{allocation.process} << 32 | allocation.stack] += allocation.sizeBytes;
    }
    /// Each search tells all leaks: the last one counts.
    void onSearch(const ExportSearch&) override { _weights.clear(); }
    void onLeak(const ExportLeak& leak) override
    {
        _weights[uint64_t{leak.process} << 32 | leak.stack] += leak.record.sizeBytes;
    }
    /// By thread (of allocations: process) in the upper half and path.
    [[nodiscard]] const std::unordered_map<uint64_t, uint64_t>& all() const { return _weights; }

private:
    const ExportOptions& _options;
    std::unordered_map<uint64_t, uint64_t> _weights;
};

/// One line a call path: frames outermost first, joined by semicolons, a space, a count. Lines are sorted; paths that
/// read the same are one line. Counts are samples, of waits microseconds, of allocations and
/// leaks bytes.
class FoldedExporter final : public Exporter {
public:
    Status write(ExportSource& source, OutputSink& out) override
    {
        Weights weights(source.options());
        source.read(weights);
        const bool isHeap = source.instrument(kStackSamplerId) == nullptr; // or leaks
        std::map<std::string, uint64_t> lines;
        for (const auto& [key, weight] : weights.all()) {
            const auto owner = static_cast<uint32_t>(key >> 32);
            const std::string root = isHeap ? processRoot(source, owner) : threadRoot(source, owner);
            lines[cleaned(root) + pathText(source, static_cast<uint32_t>(key))] += weight;
        }
        for (const auto& [line, weight] : lines) {
            // A wait below a microsecond is one all the same: nothing vanishes.
            const uint64_t count =
                source.options().offCpu && !isHeap ? std::max<uint64_t>(weight / kNsPerUs, 1) : weight;
            if (count != 0)
                out.write(line + " " + std::to_string(count) + "\n");
        }
        return {};
    }

private:
    /// What would end a frame or a line, replaced.
    static std::string cleaned(std::string text)
    {
        for (char& c : text)
            c = c == ';' ? ':' : (c == '\n' || c == '\r' ? ' ' : c);
        return text;
    }
    static std::string processRoot(const ExportSource& source, uint32_t number)
    {
        const ExportProcess& process = source.threads().processes()[number];
        return source.options().threadRoots ? process.name + "-" + std::to_string(process.pid) : process.name;
    }
    static std::string threadRoot(const ExportSource& source, uint32_t number)
    {
        const ExportThread& thread = source.threads().threads()[number];
        if (!source.options().threadRoots)
            return thread.name;
        return thread.name + "-" + std::to_string(thread.pid) + "/" + std::to_string(thread.tid);
    }
    std::string pathText(const ExportSource& source, uint32_t stack)
    {
        const StackTable& table = source.stacks();
        const bool annotate = source.options().annotate;
        table.pathOf(stack, _path);
        std::string text;
        for (const uint32_t number : _path) {
            const ExportLocation& location = table.locations()[number];
            for (uint32_t i = location.lineCount; i-- > 0;) {
                text += ";" + cleaned(table.nameOf(table.line(location.firstLine + i)));
                if (annotate)
                    text += location.isKernel ? "_[k]" : (i + 1 < location.lineCount ? "_[i]" : "");
            }
        }
        return text;
    }

    std::vector<uint32_t> _path;
};

} // namespace

std::unique_ptr<Exporter> makeFoldedExporter() { return std::make_unique<FoldedExporter>(); }

} // namespace vnt
