#include "rumbel/report/StackReport.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

#include "rumbel/report/CallTreeText.h"
#include "rumbel/report/textLines.h"

namespace vnt {

namespace {

constexpr size_t kMaxNameColumn = 60; // longer names push their module to the right

std::string targetLine(const StackReport& report)
{
    const auto pid = report.data.pid();
    if (!pid)
        return "unknown";
    if (*pid == -3)
        return "all processes";
    if (*pid == 0)
        return "the kernel"
            + (report.recording.symbolizer->kernelRelease().empty()
                   ? std::string()
                   : " " + printable(report.recording.symbolizer->kernelRelease()));
    std::string text = "process " + std::to_string(*pid);
    if (!report.targetName().empty())
        text = printable(report.targetName()) + ", " + text;
    if (!report.targetExecutable().empty())
        text += " (" + printable(report.targetExecutable()) + ")";
    return text;
}

std::string recordedLine(const StackReport& report)
{
    const std::string length = duration(report.durationNs());
    return report.data.startSeconds() != 0 ? utcTime(report.data.startSeconds()) + ", " + length : length;
}

std::string samplesLine(const StackReport& report)
{
    const ProfileTotals& totals = report.totals();
    const uint64_t intervalNs = report.intervalNs();
    std::string text = grouped(totals.all.samples);
    if (intervalNs != 0)
        text +=
            ", one every " + duration(intervalNs) + " of processor time: " + duration(totals.all.samples * intervalNs);
    return text + ", in " + plural(report.recording.profile.threads().size(), "thread");
}

std::string lostLine(const StackReport& report)
{
    const ProfileTotals& totals = report.totals();
    std::string text = plural(totals.lost(), "sample") + " lost ("
        + percent(totals.lost(), totals.lost() + totals.all.samples) + " %), " + grouped(totals.throttled())
        + " throttled";
    const uint64_t messages = std::max(totals.missingMessages, report.recording.droppedMessages);
    if (messages != 0)
        text += ", " + plural(messages, "message") + " missing";
    if (totals.damagedMessages != 0)
        text += ", " + plural(totals.damagedMessages, "message") + " damaged";
    return text;
}

void writeSummary(const StackReport& report, std::ostream& out)
{
    const ProfileTotals& totals = report.totals();
    out << "Stack Sampler\n";
    writeLine(out, "Target", targetLine(report));
    writeLine(out, "Recorded", recordedLine(report));
    writeLine(out, "Samples", samplesLine(report));
    if (totals.blockedRecords != 0)
        writeLine(out, "Blocked",
                  duration(totals.all.blockedNs) + " off the processor in " + plural(totals.blockedRecords, "wait"));
    writeLine(out, "Lost", lostLine(report));
    writeLine(out, "Truncated", plural(totals.truncated, "stack") + " without the outer frames");
    writeLine(out, "Recorder",
              duration(totals.recorderCpuNs) + " of processor time ("
                  + percent(totals.recorderCpuNs, report.durationNs()) + " % of one processor)");
    if ((totals.session.flags & stacks::SessionRecord::kUserModeOnly) != 0)
        writeLine(out, "Note", "the system allowed no samples while the kernel worked for the target");
}

/// What one row of the table is.
const char* rowName(ReportOptions::By by)
{
    return by == ReportOptions::By::kModule ? "module" : by == ReportOptions::By::kLine ? "line" : "function";
}

/// By their own share, or by time blocked where nothing ran.
void writeFunctions(const StackReport& report, const ReportOptions& options, std::ostream& out)
{
    const uint64_t all = report.totals().all.samples;
    const bool showsBlocked = report.totals().blockedRecords != 0;
    const size_t shown = options.top == 0 ? report.functions.size() : std::min(options.top, report.functions.size());
    size_t nameColumn = 8;
    for (size_t i = 0; i < shown; ++i) {
        const std::string name = shortFunctionName(report.symbol(report.functions[i].symbol).function);
        nameColumn = std::max(nameColumn, std::min(kMaxNameColumn, displayWidth(name)));
    }
    out << "\n  self %      self  total %     total  " << (showsBlocked ? "    blocked  " : "");
    if (options.by == ReportOptions::By::kModule)
        out << "module\n";
    else
        out << std::left << std::setw(static_cast<int>(nameColumn)) << rowName(options.by) << "  module\n";
    uint64_t rest = all;
    for (size_t i = 0; i < shown; ++i) {
        const ProfileFunction& function = report.functions[i];
        const Symbol& symbol = report.symbol(function.symbol);
        const std::string name = shortFunctionName(symbol.function);
        rest -= function.self.samples;
        out << std::right << std::setw(8) << percent(function.self.samples, all) << std::setw(10)
            << function.self.samples << std::setw(9) << percent(function.total.samples, all) << std::setw(10)
            << function.total.samples << "  ";
        if (showsBlocked)
            out << std::setw(11) << duration(function.total.blockedNs) << "  "; // with what it called
        out << name;
        if (!symbol.module.empty() && options.by != ReportOptions::By::kModule)
            out << std::string(nameColumn - std::min(nameColumn, displayWidth(name)), ' ') << "  "
                << printable(symbol.module);
        out << "\n";
    }
    if (shown < report.functions.size())
        out << std::right << std::setw(8) << percent(rest, all) << std::setw(10) << rest << "                     "
            << (showsBlocked ? "             " : "") << "in "
            << plural(report.functions.size() - shown, std::string("further ") + rowName(options.by)) << "\n";
}

/// Threads, most samples first.
void writeThreads(const StackReport& report, const ReportOptions& options, std::ostream& out)
{
    std::vector<const ProfileThread*> threads;
    for (const ProfileThread& thread : report.recording.profile.threads())
        threads.push_back(&thread);
    std::stable_sort(threads.begin(), threads.end(), [](const ProfileThread* a, const ProfileThread* b) {
        return std::pair(a->samples, a->blockedNs) > std::pair(b->samples, b->blockedNs);
    });
    const size_t shown = options.top == 0 ? threads.size() : std::min(options.top, threads.size());
    out << "\n       %   samples     blocked      pid      tid  thread\n";
    for (size_t i = 0; i < shown; ++i) {
        const ProfileThread& thread = *threads[i];
        out << std::right << std::setw(8) << percent(thread.samples, report.totals().all.samples) << std::setw(10)
            << thread.samples << std::setw(12) << duration(thread.blockedNs) << std::setw(9) << thread.pid
            << std::setw(9) << thread.tid << "  " << printable(thread.name) << "\n";
    }
    if (shown < threads.size())
        out << "          and " << plural(threads.size() - shown, "further thread") << "\n";
}

} // namespace

void writeStackText(const StackReport& report, const ReportOptions& options, std::ostream& out)
{
    writeSummary(report, out);
    if (report.functions.empty()) {
        out << "\n  There are no samples.\n";
        return;
    }
    if (!options.function.empty()) {
        writeFunctionDetails(report, options, out);
        return;
    }
    if (options.by == ReportOptions::By::kThread)
        writeThreads(report, options, out);
    else
        writeFunctions(report, options, out);
    if (options.tree)
        writeCallTree(report, options, out);
}

} // namespace vnt
