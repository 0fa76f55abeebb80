#include "rumbel/report/StackReport.h"

#include <algorithm>

#include "bundle/Instruments.h"

namespace vnt {

StackReport StackReport::read(const Bundle& bundle, const ReadingOptions& options)
{
    InstrumentData data = bundle.instrument(kStackSamplerId);
    StackRecording recording = readStacks(bundle, data, options);
    std::vector<ProfileFunction> functions = recording.profile.functions();
    return {std::move(data), options, std::move(recording), std::move(functions)};
}

uint64_t StackReport::intervalNs() const
{
    if (totals().session.intervalNs != 0)
        return totals().session.intervalNs;
    const int64_t us = data.samplingIntervalUs();
    return us > 0 ? static_cast<uint64_t>(us) * 1000 : 0;
}

uint64_t StackReport::durationNs() const
{
    const uint64_t fromNs = std::max(data.startNs(), reading.span.fromNs);
    const uint64_t toNs = std::min(data.stopNs(), reading.span.untilNs);
    if (data.startNs() != 0 && data.stopNs() > data.startNs())
        return toNs - std::min(fromNs, toNs);
    return totals().lastTimeNs - totals().firstTimeNs;
}

std::string StackReport::targetName() const
{
    const auto pid = data.pid();
    const ProcessImages* process =
        pid && *pid > 0 ? recording.symbolizer->process(static_cast<uint32_t>(*pid)) : nullptr;
    return process ? process->name() : std::string();
}

std::string StackReport::targetExecutable() const
{
    const auto pid = data.pid();
    const ProcessImages* process =
        pid && *pid > 0 ? recording.symbolizer->process(static_cast<uint32_t>(*pid)) : nullptr;
    return process ? process->executable() : std::string();
}

namespace {

class StackInstrumentReport final : public InstrumentReport {
public:
    explicit StackInstrumentReport(StackReport report) : _report(std::move(report)) { }
    [[nodiscard]] const InstrumentData& data() const override { return _report.data; }
    [[nodiscard]] bool isEmpty() const override { return _report.isEmpty(); }
    void writeText(const ReportOptions& options, std::ostream& out) const override
    {
        writeStackText(_report, options, out);
    }
    void addJson(const ReportOptions& options, nlohmann::ordered_json& json) const override
    {
        addStackJson(_report, options, json);
    }
    [[nodiscard]] std::vector<MeasuredTable> measures() const override
    {
        MeasuredTable samples{
            "samples by function", "samples", true, static_cast<double>(_report.totals().all.samples), {}};
        MeasuredTable blocked{
            "time blocked by function", "ms", true, static_cast<double>(_report.totals().all.blockedNs) / 1e6, {}};
        for (const ProfileFunction& function : _report.functions) {
            const Symbol& symbol = _report.symbol(function.symbol);
            const std::string name =
                symbol.module.empty() ? symbol.function : symbol.function + " (" + symbol.module + ")";
            if (function.self.samples != 0)
                samples.entries[name] += static_cast<double>(function.self.samples);
            if (function.self.blockedNs != 0)
                blocked.entries[name] += static_cast<double>(function.self.blockedNs) / 1e6;
        }
        return {samples, blocked};
    }

private:
    const StackReport _report;
};

} // namespace

std::unique_ptr<InstrumentReport> readStackReport(const Bundle& bundle, const ReadingOptions& options)
{
    return std::make_unique<StackInstrumentReport>(StackReport::read(bundle, options));
}

} // namespace vnt
