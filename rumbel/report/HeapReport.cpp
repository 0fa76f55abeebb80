#include "rumbel/report/HeapReport.h"

#include <algorithm>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "bundle/HeapProfile.h"
#include "bundle/Instruments.h"
#include "records/HeapJournal.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kShownSites = 12; // a summary is one screen; --tree shows more, with their callers
constexpr size_t kMaxNameColumn = 60;
constexpr size_t kShownCallers = 8;
constexpr size_t kShownFaults = 3;
constexpr size_t kShownClasses = 12;
constexpr size_t kShownUnbalanced = 3;
constexpr std::string_view kFunctionNames[heap::kFunctions] = {"malloc",  "calloc",       "realloc",
                                                               "aligned", "operator new", "operator new[]"};

class HeapReport final : public InstrumentReport {
public:
    HeapReport(InstrumentData data, HeapProfile profile) : _data(std::move(data)), _profile(std::move(profile)) { }

    [[nodiscard]] const InstrumentData& data() const override { return _data; }
    [[nodiscard]] bool isEmpty() const override { return !_data.hasArchive() && _profile.messages == 0; }
    void writeText(const ReportOptions& options, std::ostream& out) const override;
    void addJson(const ReportOptions& options, Json& json) const override;
    [[nodiscard]] std::vector<MeasuredTable> measures() const override
    {
        const HeapCounts& all = _profile.totals.all;
        MeasuredTable allocated{"bytes allocated by function", "bytes", false, static_cast<double>(all.bytes), {}};
        MeasuredTable live{"bytes not freed by function", "bytes", false, static_cast<double>(all.liveBytes), {}};
        for (const HeapSite& site : _profile.sites) {
            const Symbol& symbol = _profile.symbolizer->symbol(site.symbol);
            const std::string key =
                symbol.module.empty() ? symbol.function : symbol.function + " (" + symbol.module + ")";
            allocated.entries[key] += static_cast<double>(site.counts.bytes);
            if (site.counts.liveBytes != 0)
                live.entries[key] += static_cast<double>(site.counts.liveBytes);
        }
        return {allocated, live};
    }

private:
    [[nodiscard]] std::string name(uint32_t symbol) const { return _profile.symbolizer->symbol(symbol).function; }
    [[nodiscard]] uint64_t durationNs() const { return _profile.totals.lastTimeNs - _profile.totals.firstTimeNs; }
    [[nodiscard]] uint64_t lostMessages() const
    {
        return std::max(_profile.totals.missingMessages, _profile.droppedMessages);
    }
    void writeLosses(std::ostream& out) const;
    void writeFaults(const ReportOptions& options, std::ostream& out) const;
    [[nodiscard]] std::string pathText(const std::vector<uint32_t>& path) const;
    [[nodiscard]] Json pathJson(const std::vector<uint32_t>& path) const;
    void writeReferences(const ReportOptions& options, std::ostream& out) const;
    void writeUnbalanced(const UnbalancedObjects& group, std::ostream& out) const;
    void writeClasses(const ReportOptions& options, std::ostream& out) const;
    [[nodiscard]] Json referencesJson() const;
    void writeSizes(std::ostream& out) const;
    void writeSites(const ReportOptions& options, std::ostream& out) const;
    void writeSite(const HeapSite& site, size_t nameColumn, std::ostream& out) const;

    const InstrumentData _data;
    const HeapProfile _profile;
};

void HeapReport::writeText(const ReportOptions& options, std::ostream& out) const
{
    const HeapTotals& totals = _profile.totals;
    writeHeading(_data, out);
    if (totals.pid == 0)
        writeLine(out, "Target", "no journal reported itself");
    else
        writeLine(out, "Target",
                  printable(totals.targetName) + ", process " + std::to_string(totals.pid)
                      + (totals.is32Bit ? ", 32 bit" : "") + (totals.attached ? ", attached to while it ran" : ""));
    writeLine(out, "Allocated",
              bytes(totals.all.bytes) + " in " + plural(totals.all.allocations, "block") + ", over "
                  + duration(durationNs()));
    writeLine(out, "Freed",
              plural(totals.frees, "block") + ", " + grouped(totals.unknownFrees)
                  + " of them allocated outside the recording");
    writeLine(out, "Live",
              bytes(totals.all.liveBytes) + " in " + plural(totals.all.liveBlocks, "block") + " at the end");
    writeLine(out, "Peak",
              bytes(totals.peakBytes) + " after "
                  + duration(totals.peakTimeNs - std::min(totals.peakTimeNs, totals.firstTimeNs)));
    writeLine(out, "Temporary",
              plural(totals.all.temporary, "block") + " (" + percent(totals.all.temporary, totals.all.allocations)
                  + " %) freed before the next was allocated");
    writeSizes(out);
    writeLosses(out);
    writeLine(out, "Recorder", duration(totals.recorderCpuNs) + " of processor time");
    writeFaults(options, out);
    if (_profile.sites.empty())
        out << "\n  There are no allocations.\n";
    else
        writeSites(options, out);
    writeClasses(options, out);
    writeReferences(options, out);
}

void HeapReport::writeLosses(std::ostream& out) const
{
    const HeapTotals& totals = _profile.totals;
    std::string text = plural(totals.lost(), "event") + " lost";
    if (lostMessages() != 0)
        text += ", " + plural(lostMessages(), "message") + " missing";
    if (totals.damagedMessages != 0)
        text += ", " + plural(totals.damagedMessages, "message") + " damaged";
    const uint64_t dead = totals.lostByCause[static_cast<size_t>(heap::LostCause::kMalformed)];
    if (dead != 0)
        text += ", " + plural(dead, "thread") + " given up";
    writeLine(out, "Lost", text);
}

std::string HeapReport::pathText(const std::vector<uint32_t>& path) const
{
    if (path.empty())
        return "an unknown place";
    std::string text = shortFunctionName(name(path[0]));
    for (size_t i = 1; i < std::min(path.size(), kShownCallers); ++i)
        text += " < " + shortFunctionName(name(path[i]));
    return text;
}

void HeapReport::writeFaults(const ReportOptions& options, std::ostream& out) const
{
    if (_profile.totals.faults == 0)
        return;
    writeLine(out, "Faults", plural(_profile.totals.faults, "use") + " of freed blocks");
    const size_t shown = options.tree ? _profile.faults.size() : std::min(kShownFaults, _profile.faults.size());
    for (size_t i = 0; i < shown; ++i) {
        const HeapFault& fault = _profile.faults[i];
        static constexpr const char* kNoticed[heap::kFaults] = {"again       ", "noticed     ", "retained    ",
                                                                "released    "};
        out << "\n  " << nameOf(fault.fault);
        if (fault.fault == heap::Fault::kWritten)
            out << ", at byte " << fault.byte;
        out << "\n    allocated   " << pathText(fault.allocated) << "\n    freed       " << pathText(fault.freed)
            << "\n    " << kNoticed[static_cast<size_t>(fault.fault)] << pathText(fault.noticed) << "\n";
    }
    if (shown < _profile.totals.faults)
        out << "  and " << grouped(_profile.totals.faults - shown) << " more\n";
}

/// The classes of live blocks.
void HeapReport::writeClasses(const ReportOptions& options, std::ostream& out) const
{
    const HeapClasses& classes = _profile.classes;
    if (!classes.known)
        return;
    if (classes.classes.empty()) {
        out << "\n  No live block holds an object of a C++ class that can be named.\n";
        return;
    }
    const size_t shown = options.tree ? classes.classes.size() : std::min(kShownClasses, classes.classes.size());
    out << "\n       live       blocks  class\n";
    for (size_t i = 0; i < shown; ++i) {
        const HeapClass& each = classes.classes[i];
        out << std::right << std::setw(11) << bytes(each.bytes) << std::setw(13) << grouped(each.blocks) << "  "
            << printable(each.name) << "\n";
    }
    if (shown < classes.classes.size())
        out << "  and " << grouped(classes.classes.size() - shown) << " more\n";
}

void HeapReport::writeUnbalanced(const UnbalancedObjects& group, std::ostream& out) const
{
    out << "\n  " << plural(group.objects, "object") << ", " << grouped(group.retains) << " retained, "
        << grouped(group.releases) << " released\n";
    for (const UnbalancedObjects::Use& use : group.uses) {
        if (use.retains != 0)
            out << "    retained" << std::setw(9) << grouped(use.retains) << "  " << pathText(use.path) << "\n";
        if (use.releases != 0)
            out << "    released" << std::setw(9) << grouped(use.releases) << "  " << pathText(use.path) << "\n";
    }
}

void HeapReport::writeReferences(const ReportOptions& options, std::ostream& out) const
{
    const ReferenceCounts& counts = _profile.counts;
    if (counts.empty())
        return;
    out << "\n  Counted objects: " << grouped(counts.objects) << ", retained " << grouped(counts.retains)
        << " times, released " << grouped(counts.releases) << " times\n"
        << "  Retained more than released, and left: " << grouped(counts.unbalancedObjects) << "\n";
    const size_t shown = options.tree ? counts.unbalanced.size() : std::min(kShownUnbalanced, counts.unbalanced.size());
    for (size_t i = 0; i < shown; ++i)
        writeUnbalanced(counts.unbalanced[i], out);
    if (shown < counts.unbalanced.size())
        out << "  and " << grouped(counts.unbalanced.size() - shown) << " more\n";
}

/// The three commonest sizes.
void HeapReport::writeSizes(std::ostream& out) const
{
    const auto& bySize = _profile.totals.bySize;
    std::vector<size_t> classes;
    for (size_t i = 0; i < bySize.size(); ++i) {
        if (bySize[i] != 0)
            classes.push_back(i);
    }
    std::stable_sort(classes.begin(), classes.end(), [&](size_t a, size_t b) { return bySize[a] > bySize[b]; });
    std::string text;
    for (size_t i = 0; i < std::min<size_t>(classes.size(), 3); ++i) {
        const uint64_t first = classes[i] == 0 ? 0 : uint64_t{1} << (classes[i] - 1);
        const uint64_t last = classes[i] == 0 ? 0 : first * 2 - 1;
        text += (i == 0 ? "" : ", ") + percent(bySize[classes[i]], _profile.totals.all.allocations) + " % of "
            + (first == last ? std::to_string(first) : std::to_string(first) + " to " + std::to_string(last))
            + " bytes";
    }
    if (!text.empty())
        writeLine(out, "Sizes", text);
}

void HeapReport::writeSite(const HeapSite& site, size_t nameColumn, std::ostream& out) const
{
    const Symbol& symbol = _profile.symbolizer->symbol(site.symbol);
    const std::string shown = shortFunctionName(symbol.function);
    out << std::right << std::setw(11) << bytes(site.counts.bytes) << std::setw(13) << grouped(site.counts.allocations)
        << std::setw(11) << bytes(site.counts.liveBytes) << std::setw(13) << grouped(site.counts.liveBlocks)
        << std::setw(13) << grouped(site.counts.temporary) << "  " << shown;
    if (!symbol.module.empty())
        out << std::string(nameColumn - std::min(nameColumn, displayWidth(shown)), ' ') << "  "
            << printable(symbol.module);
    out << "\n";
}

void HeapReport::writeSites(const ReportOptions& options, std::ostream& out) const
{
    const size_t wanted =
        options.tree ? options.top : std::min(options.top == 0 ? kShownSites : options.top, kShownSites);
    const size_t shown = wanted == 0 ? _profile.sites.size() : std::min(wanted, _profile.sites.size());
    size_t nameColumn = 8;
    for (size_t i = 0; i < shown; ++i)
        nameColumn = std::max(
            nameColumn, std::min(kMaxNameColumn, displayWidth(shortFunctionName(name(_profile.sites[i].symbol)))));
    out << "\n  allocated       blocks       live       blocks    temporary  function\n";
    for (size_t i = 0; i < shown; ++i) {
        const HeapSite& site = _profile.sites[i];
        writeSite(site, nameColumn, out);
        for (size_t c = 0; options.tree && c < std::min(site.callers.size(), kShownCallers); ++c)
            out << std::string(63 + 2 * c, ' ') << "  from " << shortFunctionName(name(site.callers[c])) << "\n";
    }
    if (shown < _profile.sites.size())
        out << "  and " << plural(_profile.sites.size() - shown, "further function") << "\n";
}

Json countsJson(const HeapCounts& counts)
{
    return Json{{"allocations", counts.allocations},
                {"bytes", counts.bytes},
                {"live_blocks", counts.liveBlocks},
                {"live_bytes", counts.liveBytes},
                {"temporary", counts.temporary}};
}

Json HeapReport::pathJson(const std::vector<uint32_t>& path) const
{
    Json json = Json::array();
    for (const uint32_t symbol : path)
        json.push_back(name(symbol));
    return json;
}

Json HeapReport::referencesJson() const
{
    const ReferenceCounts& counts = _profile.counts;
    Json unbalanced = Json::array();
    for (const UnbalancedObjects& group : counts.unbalanced) {
        Json retained = Json::array();
        Json released = Json::array();
        for (const UnbalancedObjects::Use& use : group.uses) {
            if (use.retains != 0)
                retained.push_back({{"count", use.retains}, {"stack", pathJson(use.path)}});
            if (use.releases != 0)
                released.push_back({{"count", use.releases}, {"stack", pathJson(use.path)}});
        }
        unbalanced.push_back({{"objects", group.objects},
                              {"retains", group.retains},
                              {"releases", group.releases},
                              {"address", group.address},
                              {"count", group.count},
                              {"retained", std::move(retained)},
                              {"released", std::move(released)}});
    }
    return {{"retains", counts.retains},
            {"releases", counts.releases},
            {"unchanged", counts.unchanged},
            {"objects", counts.objects},
            {"unbalanced_objects", counts.unbalancedObjects},
            {"not_followed", counts.notFollowed},
            {"unbalanced", std::move(unbalanced)}};
}

void HeapReport::addJson(const ReportOptions&, Json& json) const
{
    const HeapTotals& totals = _profile.totals;
    json["target"] = totals.targetName;
    json["journal_pid"] = totals.pid;
    json["is_32_bit"] = totals.is32Bit;
    json["attached"] = totals.attached;
    json["allocations"] = totals.all.allocations;
    json["frees"] = totals.frees;
    json["unknown_frees"] = totals.unknownFrees;
    json["bytes_allocated"] = totals.all.bytes;
    json["live_blocks"] = totals.all.liveBlocks;
    json["live_bytes"] = totals.all.liveBytes;
    json["peak_bytes"] = totals.peakBytes;
    json["temporary"] = totals.all.temporary;
    json["lost"] = totals.lost();
    json["messages"] = _profile.messages;
    json["messages_lost"] = lostMessages();
    json["messages_damaged"] = totals.damagedMessages;
    json["threads_given_up"] = totals.lostByCause[static_cast<size_t>(heap::LostCause::kMalformed)];
    json["duration_ms"] = static_cast<double>(durationNs()) / 1e6;
    json["recorder_cpu_ms"] = static_cast<double>(totals.recorderCpuNs) / 1e6;
    for (size_t i = 0; i < heap::kFunctions; ++i)
        json["by_function"][std::string(kFunctionNames[i])] = totals.byFunction[i];
    json["by_size"] = Json::array();
    for (size_t i = 0; i < kHeapSizeClasses; ++i) {
        if (totals.bySize[i] != 0)
            json["by_size"].push_back({{"from", i == 0 ? 0 : uint64_t{1} << (i - 1)}, {"blocks", totals.bySize[i]}});
    }
    Json sites = Json::array();
    for (const HeapSite& site : _profile.sites) {
        Json entry{{"function", name(site.symbol)}};
        entry.update(countsJson(site.counts));
        entry["module"] = _profile.symbolizer->symbol(site.symbol).module;
        entry["callers"] = pathJson(site.callers);
        sites.push_back(std::move(entry));
    }
    json["sites"] = std::move(sites);
    json["faults"] = Json::array();
    static constexpr const char* kFaultNames[heap::kFaults] = {"second free", "written", "retained", "released"};
    for (const HeapFault& fault : _profile.faults)
        json["faults"].push_back({{"fault", kFaultNames[static_cast<size_t>(fault.fault)]},
                                  {"byte", fault.byte},
                                  {"allocated", pathJson(fault.allocated)},
                                  {"freed", pathJson(fault.freed)},
                                  {"noticed", pathJson(fault.noticed)}});
    if ((totals.eventsMask & journal::kCountEvents) != 0 || !_profile.counts.empty())
        json["reference_counts"] = referencesJson();
    if (!_profile.classes.known)
        return;
    json["classes_looked_at"] = {{"live_blocks", _profile.classes.blocks}, {"bytes", _profile.classes.bytes}};
    json["classes"] = Json::array();
    for (const HeapClass& each : _profile.classes.classes)
        json["classes"].push_back({{"class", each.name}, {"live_blocks", each.blocks}, {"bytes", each.bytes}});
}

} // namespace

std::unique_ptr<InstrumentReport> readHeapReport(const Bundle& bundle, const ReadingOptions& options)
{
    InstrumentData data = bundle.instrument(kHeapRecorderId);
    HeapProfile profile = readHeap(bundle, data, options);
    return std::make_unique<HeapReport>(std::move(data), std::move(profile));
}

} // namespace vnt
