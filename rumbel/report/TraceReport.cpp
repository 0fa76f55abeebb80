#include "rumbel/report/TraceReport.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "bundle/Instruments.h"
#include "bundle/TraceSummary.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

using Json = nlohmann::ordered_json;

// One screen: events, system calls, threads and stacks.
constexpr size_t kEventRows = 10;
constexpr size_t kCallRows = 10;
constexpr size_t kThreadRows = 4;
constexpr size_t kStackRows = 5;
constexpr size_t kFramesShown = 4;
constexpr size_t kJsonStacks = 50;

double milliseconds(uint64_t ns) { return static_cast<double>(ns) / 1e6; }

class TraceReport final : public InstrumentReport {
public:
    TraceReport(InstrumentData data, const Bundle& bundle, const ReadingOptions& options)
        : _data(std::move(data)),
          _symbolizer(bundle.symbolizer(_data)),
          _span(options.span),
          _summary(summarizeTrace(bundle, _data, *_symbolizer, _span))
    {
        for (const auto& [name, count] : _summary.byName)
            _names.emplace_back(count, name);
        std::stable_sort(_names.begin(), _names.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    }

    [[nodiscard]] const InstrumentData& data() const override { return _data; }
    [[nodiscard]] bool isEmpty() const override { return !_data.hasArchive() && _summary.messages.messages == 0; }
    void writeText(const ReportOptions& options, std::ostream& out) const override;
    void addJson(const ReportOptions& options, Json& json) const override;
    [[nodiscard]] std::vector<MeasuredTable> measures() const override
    {
        MeasuredTable events{"events by name", "events", false, static_cast<double>(_summary.events()), {}};
        for (const auto& [name, count] : _summary.byName)
            events.entries[name] = static_cast<double>(count);
        MeasuredTable calls{"time in system calls", "ms", false, 0, {}};
        for (const TraceCall& call : _summary.calls) {
            calls.entries[call.name] += milliseconds(call.spans.totalNs);
            calls.total += milliseconds(call.spans.totalNs);
        }
        return {events, calls};
    }

private:
    [[nodiscard]] const TraceTotals& totals() const { return _summary.totals; }
    [[nodiscard]] uint64_t durationNs() const
    {
        if (_span == TimeSpan() && totals().session.windowNs == 0 && _data.startNs() != 0
            && _data.stopNs() > _data.startNs())
            return _data.stopNs() - _data.startNs();
        return totals().lastTimeNs - totals().firstTimeNs;
    }
    [[nodiscard]] const ProcessImages* process() const
    {
        const auto pid = _data.pid();
        return pid && *pid > 0 ? _symbolizer->process(static_cast<uint32_t>(*pid)) : nullptr;
    }
    [[nodiscard]] std::string target() const;
    [[nodiscard]] std::vector<std::string> functions(const TraceOffStack& stack) const;
    void writeSummary(std::ostream& out) const;
    void writeEvents(std::ostream& out) const;
    void writeCalls(std::ostream& out) const;
    void writeThreads(size_t rows, std::ostream& out) const;
    void writeStacks(std::ostream& out) const;

    const InstrumentData _data;
    const std::unique_ptr<Symbolizer> _symbolizer;
    const TimeSpan _span;
    const TraceSummary _summary;
    std::vector<std::pair<uint64_t, std::string>> _names; // most events first
};

std::string TraceReport::target() const
{
    const auto pid = _data.pid();
    if (!pid)
        return "unknown";
    if (*pid == -3)
        return "all processes";
    const std::string text = "process " + std::to_string(*pid) + " and those it started";
    return process() ? printable(process()->name()) + ", " + text : text;
}

/// The functions of a stack, innermost first.
std::vector<std::string> TraceReport::functions(const TraceOffStack& stack) const
{
    constexpr uint64_t kFirstKernelAddress = uint64_t{1} << 63;
    std::vector<std::string> names;
    for (size_t i = 0; i < stack.frames.size(); ++i) {
        const uint64_t address = stack.frames[i];
        // Where user code entered the kernel, its address is the interrupted instruction, not a return address.
        const bool entersKernel = i > 0 && stack.frames[i - 1] >= kFirstKernelAddress && address < kFirstKernelAddress;
        const auto role = i == 0 || entersKernel ? FrameRole::kExact : FrameRole::kReturn;
        const auto resolved = _symbolizer->resolve(stack.pid, address, stack.timeNs, role);
        names.push_back(_symbolizer->symbol(resolved.symbol).function);
    }
    if (!stack.isWhole)
        names.push_back(_symbolizer->symbol(Symbolizer::kTruncated).function);
    return names;
}

void TraceReport::writeSummary(std::ostream& out) const
{
    writeHeading(_data, out);
    writeLine(out, "Target", target());
    std::string events = grouped(_summary.events()) + " in " + plural(_summary.threads.size(), "thread") + " over "
        + duration(durationNs());
    if (_summary.outsideEvents() != 0)
        events += "; " + grouped(_summary.outsideEvents()) + " more about them by other threads";
    writeLine(out, "Events", events);
    std::string lost =
        plural(totals().lost(), "event") + " (" + percent(totals().lost(), totals().lost() + totals().events) + " %)";
    const uint64_t messages = std::max(totals().missingMessages, _summary.messages.dropped);
    if (messages != 0)
        lost += ", " + plural(messages, "message") + " missing";
    if (totals().damagedMessages != 0)
        lost += ", " + plural(totals().damagedMessages, "message") + " damaged";
    if (totals().nested() != 0)
        lost += "; at most " + grouped(totals().nested()) + " more within the recording of others";
    if (totals().unordered != 0)
        lost += "; " + grouped(totals().unordered) + " out of order";
    writeLine(out, "Lost", lost);
    writeLine(out, "Recorder",
              duration(totals().recorderCpuNs) + " of processor time (" + percent(totals().recorderCpuNs, durationNs())
                  + " % of one processor)");
    writeLine(out, "Switches",
              grouped(_summary.voluntarySwitches) + " to wait, " + grouped(_summary.involuntarySwitches)
                  + " pushed aside; " + duration(_summary.offProcessor.totalNs) + " off the processor"
                  + (_summary.unseenReturns == 0
                         ? ""
                         : "; the kernel did not tell of " + grouped(_summary.unseenReturns) + " switches back"));
    writeLine(out, "Woken",
              grouped(_summary.wakeups.count) + " times; until running " + duration(_summary.wakeups.meanNs())
                  + " on average, " + duration(_summary.wakeups.longestNs) + " at most");
    if (_summary.lockWaits.count != 0)
        writeLine(out, "Lock waits",
                  plural(_summary.lockWaits.count, "wait") + ", " + duration(_summary.lockWaits.totalNs));
}

void TraceReport::writeEvents(std::ostream& out) const
{
    out << "\n       %     events  event\n";
    for (size_t i = 0; i < std::min(kEventRows, _names.size()); ++i)
        out << std::right << std::setw(8) << percent(_names[i].first, _summary.events()) << std::setw(11)
            << grouped(_names[i].first) << "  " << printable(_names[i].second) << "\n";
    if (_names.size() > kEventRows)
        out << "          and " << plural(_names.size() - kEventRows, "further kind") << "\n";
}

void TraceReport::writeCalls(std::ostream& out) const
{
    if (_summary.calls.empty())
        return;
    out << "\n   calls   errors       total        mean     longest  system call\n";
    for (size_t i = 0; i < std::min(kCallRows, _summary.calls.size()); ++i) {
        const TraceCall& call = _summary.calls[i];
        out << std::right << std::setw(8) << grouped(call.entered) << std::setw(9) << grouped(call.failed)
            << std::setw(12) << duration(call.spans.totalNs) << std::setw(12) << duration(call.spans.meanNs())
            << std::setw(12) << duration(call.spans.longestNs) << "  " << printable(call.name) << "\n";
    }
    if (_summary.calls.size() > kCallRows)
        out << "          and " << plural(_summary.calls.size() - kCallRows, "further call") << "\n";
}

void TraceReport::writeThreads(size_t rows, std::ostream& out) const
{
    out << "\n  events    waits    aside   off processor       woken  thread\n";
    for (size_t i = 0; i < std::min(rows, _summary.threads.size()); ++i) {
        const TraceThread& thread = _summary.threads[i];
        out << std::right << std::setw(8) << grouped(thread.events) << std::setw(9) << grouped(thread.voluntarySwitches)
            << std::setw(9) << grouped(thread.involuntarySwitches) << std::setw(16)
            << duration(thread.offProcessor.totalNs) << std::setw(12) << duration(thread.wakeups.meanNs()) << "  "
            << thread.tid << " " << printable(thread.name) << "\n";
    }
    if (_summary.threads.size() > rows)
        out << "          and " << plural(_summary.threads.size() - rows, "further thread") << "\n";
}

void TraceReport::writeStacks(std::ostream& out) const
{
    if (_summary.offStacks.empty())
        return;
    out << "\n       off processor    times  where, innermost first\n";
    for (size_t i = 0; i < std::min(kStackRows, _summary.offStacks.size()); ++i) {
        const TraceOffStack& stack = _summary.offStacks[i];
        const std::vector<std::string> names = functions(stack);
        out << std::right << std::setw(20) << duration(stack.spans.totalNs) << std::setw(9)
            << grouped(stack.spans.count) << "  ";
        // The scheduler's own frames are the same everywhere.
        size_t first = 0;
        while (first + 1 < names.size()
               && (names[first].find("schedule") != std::string::npos || names[first].starts_with("[")
                   || names[first].starts_with("perf_") || names[first].starts_with("bpf_")))
            ++first;
        for (size_t k = first; k < std::min(first + kFramesShown, names.size()); ++k)
            out << (k > first ? " < " : "") << shortFunctionName(names[k]);
        out << (names.size() > first + kFramesShown ? " < ..." : "") << "\n";
    }
}

void TraceReport::writeText(const ReportOptions& options, std::ostream& out) const
{
    writeSummary(out);
    if (totals().events == 0) {
        out << "\n  There are no events.\n";
        return;
    }
    if (options.by == ReportOptions::By::kThread) {
        writeThreads(options.top == 0 ? SIZE_MAX : options.top, out);
        return;
    }
    writeEvents(out);
    writeCalls(out);
    writeThreads(kThreadRows, out);
    writeStacks(out);
}

Json spansJson(const TraceSpans& spans)
{
    return {{"count", spans.count},
            {"total_ms", milliseconds(spans.totalNs)},
            {"longest_ms", milliseconds(spans.longestNs)}};
}

Json namesJson(const std::map<std::string, uint64_t>& counts)
{
    Json json = Json::object();
    for (const auto& [name, count] : counts)
        json[name] = count;
    return json;
}

Json lostJson(const TraceTotals& totals)
{
    static constexpr const char* kCauses[trace::kLostCauses] = {"ring_full", "batch_dropped", "malformed",
                                                                "window_full", "nested"};
    Json json = Json::object();
    for (size_t i = 0; i < trace::kLostCauses; ++i)
        json[kCauses[i]] = totals.lostByCause[i];
    json["undefined"] = totals.orphans;
    return json;
}

void TraceReport::addJson(const ReportOptions&, Json& json) const
{
    json["target"] = process() ? process()->name() : std::string();
    json["events"] = _summary.events();
    json["lost"] = totals().lost();
    json["by_name"] = namesJson(_summary.byName);
    json["outside_events"] = _summary.outsideEvents();
    json["outside_by_name"] = namesJson(_summary.outsideByName);
    json["lost_by_cause"] = lostJson(totals());
    json["out_of_order"] = totals().unordered;
    json["duration_ms"] = milliseconds(durationNs());
    json["recorder_cpu_ms"] = milliseconds(totals().recorderCpuNs);
    json["messages"] = _summary.messages.messages;
    json["messages_lost"] = std::max(totals().missingMessages, _summary.messages.dropped);
    json["messages_damaged"] = totals().damagedMessages;
    Json calls = Json::array();
    for (const TraceCall& call : _summary.calls) {
        Json entry{{"name", call.name}, {"calls", call.entered}, {"errors", call.failed}};
        entry.update(spansJson(call.spans));
        calls.push_back(std::move(entry));
    }
    json["system_calls"] = std::move(calls);
    json["scheduler"] = {{"voluntary_switches", _summary.voluntarySwitches},
                         {"involuntary_switches", _summary.involuntarySwitches},
                         {"off_processor", spansJson(_summary.offProcessor)},
                         {"unseen_returns", _summary.unseenReturns},
                         {"woken", spansJson(_summary.wakeups)},
                         {"lock_waits", spansJson(_summary.lockWaits)}};
    Json threads = Json::array();
    for (const TraceThread& thread : _summary.threads)
        threads.push_back({{"pid", thread.pid},
                           {"tid", thread.tid},
                           {"name", thread.name},
                           {"events", thread.events},
                           {"voluntary_switches", thread.voluntarySwitches},
                           {"involuntary_switches", thread.involuntarySwitches},
                           {"off_processor", spansJson(thread.offProcessor)},
                           {"woken", spansJson(thread.wakeups)}});
    json["threads"] = std::move(threads);
    Json signals = Json::object();
    for (const auto& [number, count] : _summary.signals)
        signals[std::to_string(number)] = count;
    json["signals"] = std::move(signals);
    Json stacks = Json::array();
    for (size_t i = 0; i < std::min(kJsonStacks, _summary.offStacks.size()); ++i) {
        Json entry = spansJson(_summary.offStacks[i].spans);
        entry["pid"] = _summary.offStacks[i].pid;
        entry["frames"] = functions(_summary.offStacks[i]);
        stacks.push_back(std::move(entry));
    }
    json["off_processor_stacks"] = std::move(stacks);
}

} // namespace

std::unique_ptr<InstrumentReport> readTraceReport(const Bundle& bundle, const ReadingOptions& options)
{
    return std::make_unique<TraceReport>(bundle.instrument(kKernelTracerId), bundle, options);
}

} // namespace vnt
