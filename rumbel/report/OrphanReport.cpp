#include "rumbel/report/OrphanReport.h"

#include <algorithm>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "bundle/Instruments.h"
#include "bundle/OrphanProfile.h"
#include "rumbel/report/OrphanTree.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

using Json = nlohmann::ordered_json;
using orphans::Kind;
using orphans::SearchRecord;

constexpr size_t kShownSites = 12; // a summary is one screen; --tree shows all that --top lets through
constexpr size_t kMaxNameColumn = 60;
constexpr size_t kShownCallers = 8;
constexpr std::string_view kKindNames[orphans::kKinds] = {"direct", "cycle", "indirect"};

uint64_t of(const OrphanCounts& counts, Kind kind) { return counts.byKind[static_cast<size_t>(kind)]; }

class OrphanReport final : public InstrumentReport {
public:
    OrphanReport(InstrumentData data, OrphanProfile profile) : _data(std::move(data)), _profile(std::move(profile)) { }

    [[nodiscard]] const InstrumentData& data() const override { return _data; }
    [[nodiscard]] bool isEmpty() const override { return !_data.hasArchive() && _profile.messages == 0; }
    void writeText(const ReportOptions& options, std::ostream& out) const override;
    void addJson(const ReportOptions& options, Json& json) const override;
    [[nodiscard]] std::vector<MeasuredTable> measures() const override
    {
        const OrphanSummary summary = summarizeOrphans(_profile, Suppressions());
        MeasuredTable leaked{"leaked bytes by function", "bytes", false, static_cast<double>(summary.shown.bytes), {}};
        for (const OrphanSite& site : summary.sites)
            leaked.entries[name(site.symbol)] += static_cast<double>(site.counts.bytes);
        return {leaked};
    }

private:
    [[nodiscard]] std::string name(uint32_t symbol) const { return _profile.symbolizer->symbol(symbol).function; }
    [[nodiscard]] const OrphanSearchTotals* latest() const
    {
        return _profile.searches.empty() ? nullptr : &_profile.searches.back();
    }
    [[nodiscard]] uint64_t lostMessages() const { return std::max(_profile.missingMessages, _profile.droppedMessages); }
    void writeSearch(const OrphanSearchTotals& totals, const OrphanSummary& summary, std::ostream& out) const;
    void writeEarlier(std::ostream& out) const;
    void writeSites(const ReportOptions& options, const OrphanSummary& summary, std::ostream& out) const;
    [[nodiscard]] Json siteJson(const OrphanSite& site) const;
    [[nodiscard]] Json leaksJson(const OrphanSummary& summary) const;

    const InstrumentData _data;
    const OrphanProfile _profile;
};

void OrphanReport::writeText(const ReportOptions& options, std::ostream& out) const
{
    writeHeading(_data, out);
    for (const std::string& reason : _profile.notSearched)
        writeLine(out, "Not searched", printable(reason));
    if (!latest()) {
        if (_profile.notSearched.empty())
            writeLine(out, "Leaks", "the target was not searched");
        return;
    }
    const OrphanSummary summary = summarizeOrphans(_profile, options.suppressions);
    writeSearch(*latest(), summary, out);
    writeEarlier(out);
    if (summary.sites.empty()) {
        out << "\n  There are no leaks" << (summary.suppressed.leaks != 0 ? " beside the suppressed ones.\n" : ".\n");
        return;
    }
    writeSites(options, summary, out);
    if (options.tree)
        writeOrphanTree(_profile, summary, options.top, out);
}

void OrphanReport::writeSearch(const OrphanSearchTotals& totals, const OrphanSummary& summary, std::ostream& out) const
{
    const SearchRecord& search = totals.search;
    const OrphanCounts& shown = summary.shown;
    writeLine(out, "Target",
              printable(search.name) + ", process " + std::to_string(search.pid)
                  + ((search.flags & SearchRecord::k32Bit) != 0 ? ", 32 bit" : "")
                  + ((search.flags & SearchRecord::kAtExit) != 0 ? ", searched at its exit" : ""));
    writeLine(out, "Leaks",
              plural(shown.leaks, "block") + ", " + bytes(shown.bytes) + ": " + grouped(of(shown, Kind::kDirect))
                  + " that nothing points to, " + grouped(of(shown, Kind::kCycle)) + " in cycles, "
                  + grouped(of(shown, Kind::kIndirect)) + " held by these");
    if (summary.suppressed.leaks != 0)
        writeLine(out, "Suppressed",
                  plural(summary.suppressed.leaks, "block") + ", " + bytes(summary.suppressed.bytes));
    writeLine(out, "Heap",
              plural(search.blocks, "live block") + ", " + bytes(search.blockBytes)
                  + "; searched beside them: " + bytes(search.rootBytes) + ", " + plural(search.threads, "thread"));
    writeLine(out, "Pause",
              duration(search.pauseNs) + "; the result stood " + duration(search.verdictNs) + " after the request");
    std::string lost = plural(search.lostEvents, "event") + " lost";
    if (lostMessages() != 0)
        lost += ", " + plural(lostMessages(), "message") + " missing";
    if (_profile.damagedMessages != 0)
        lost += ", " + plural(_profile.damagedMessages, "message") + " damaged";
    if (search.unreadableBytes != 0)
        lost += ", " + bytes(search.unreadableBytes) + " not readable";
    writeLine(out, "Lost", lost);
}

void OrphanReport::writeEarlier(std::ostream& out) const
{
    for (size_t i = 0; i + 1 < _profile.searches.size(); ++i) {
        const OrphanSearchTotals& totals = _profile.searches[i];
        writeLine(
            out, i == 0 ? "Before" : "",
            "search " + std::to_string(totals.search.number) + ", "
                + duration(_profile.searches.back().timeNs - std::min(_profile.searches.back().timeNs, totals.timeNs))
                + " earlier: " + plural(totals.search.leaks, "block") + ", " + bytes(totals.search.leakedBytes));
    }
    if (_profile.searches.size() > 1)
        writeLine(out, "New", plural(latest()->newLeaks, "block") + " since the search before");
}

void OrphanReport::writeSites(const ReportOptions& options, const OrphanSummary& summary, std::ostream& out) const
{
    const auto& sites = summary.sites;
    const size_t wanted =
        options.tree ? options.top : std::min(options.top == 0 ? kShownSites : options.top, kShownSites);
    const size_t shown = wanted == 0 ? sites.size() : std::min(wanted, sites.size());
    size_t nameColumn = 8;
    for (size_t i = 0; i < shown; ++i)
        nameColumn =
            std::max(nameColumn, std::min(kMaxNameColumn, displayWidth(shortFunctionName(name(sites[i].symbol)))));
    out << "\n     leaked     blocks     direct   in cycles       held  function\n";
    for (size_t i = 0; i < shown; ++i) {
        const OrphanCounts& counts = sites[i].counts;
        const Symbol& symbol = _profile.symbolizer->symbol(sites[i].symbol);
        const std::string function = shortFunctionName(symbol.function);
        out << std::right << std::setw(11) << bytes(counts.bytes) << std::setw(11) << grouped(counts.leaks)
            << std::setw(11) << grouped(of(counts, Kind::kDirect)) << std::setw(12) << grouped(of(counts, Kind::kCycle))
            << std::setw(11) << grouped(of(counts, Kind::kIndirect)) << "  " << function;
        if (!symbol.module.empty())
            out << std::string(nameColumn - std::min(nameColumn, displayWidth(function)), ' ') << "  "
                << printable(symbol.module);
        out << "\n";
        for (size_t c = 0; options.tree && c < std::min(sites[i].callers.size(), kShownCallers); ++c)
            out << std::string(56 + 2 * c, ' ') << "  from " << shortFunctionName(name(sites[i].callers[c])) << "\n";
    }
    if (shown < sites.size())
        out << "  and " << plural(sites.size() - shown, "further function") << "\n";
}

Json countsJson(const OrphanCounts& counts)
{
    return Json{{"leaks", counts.leaks},
                {"bytes", counts.bytes},
                {"direct", of(counts, Kind::kDirect)},
                {"cycles", of(counts, Kind::kCycle)},
                {"indirect", of(counts, Kind::kIndirect)},
                {"new", counts.newLeaks}};
}

Json OrphanReport::siteJson(const OrphanSite& site) const
{
    Json json{{"function", name(site.symbol)}};
    json.update(countsJson(site.counts));
    json["module"] = _profile.symbolizer->symbol(site.symbol).module;
    json["callers"] = Json::array();
    for (const uint32_t symbol : site.callers)
        json["callers"].push_back(name(symbol));
    return json;
}

Json OrphanReport::leaksJson(const OrphanSummary& summary) const
{
    Json list = Json::array();
    std::vector<int64_t> places(_profile.leaks.size(), -1); // of a leak in the list
    for (size_t i = 0; i < _profile.leaks.size(); ++i) {
        const orphans::LeakRecord& leak = _profile.leaks[i];
        if (summary.isSuppressed[i])
            continue;
        places[i] = static_cast<int64_t>(list.size());
        const auto path = _profile.paths.find(leak.stack);
        Json json{{"address", leak.address},
                  {"size", leak.sizeBytes},
                  {"kind", kKindNames[static_cast<size_t>(leak.kind)]},
                  {"holder", leak.holder == 0 ? -1 : places[leak.holder - 1]},
                  {"time_ns", leak.timeNs},
                  {"new", leak.isNew}};
        json["stack"] = Json::array();
        for (size_t f = 0; path != _profile.paths.end() && f < path->second.size(); ++f)
            json["stack"].push_back(name(path->second[f]));
        if ((latest()->search.flags & SearchRecord::kHasContents) != 0)
            json["contents"] = hexText(leak.contents);
        if (!_profile.classes[i].empty())
            json["class"] = _profile.classes[i];
        list.push_back(std::move(json));
    }
    return list;
}

void OrphanReport::addJson(const ReportOptions& options, Json& json) const
{
    const OrphanSummary summary = summarizeOrphans(_profile, options.suppressions);
    const OrphanSearchTotals none;
    const OrphanSearchTotals& totals = latest() ? *latest() : none;
    const SearchRecord& search = totals.search;
    json["target"] = search.name;
    json["journal_pid"] = search.pid;
    json["searched"] = latest() != nullptr;
    json["at_exit"] = (search.flags & SearchRecord::kAtExit) != 0;
    json["leaks"] = summary.shown.leaks;
    json["leaked_bytes"] = summary.shown.bytes;
    json["direct"] = of(summary.shown, Kind::kDirect);
    json["cycles"] = of(summary.shown, Kind::kCycle);
    json["indirect"] = of(summary.shown, Kind::kIndirect);
    json["new"] = summary.shown.newLeaks;
    json["suppressed"] = summary.suppressed.leaks;
    json["suppressed_bytes"] = summary.suppressed.bytes;
    json["omitted"] = totals.omitted;
    json["pause_us"] = search.pauseNs / 1000;
    json["verdict_us"] = search.verdictNs / 1000;
    json["threads"] = search.threads;
    json["blocks"] = search.blocks;
    json["block_bytes"] = search.blockBytes;
    json["root_bytes"] = search.rootBytes;
    json["older_bytes"] = search.olderBytes;
    json["unreadable_bytes"] = search.unreadableBytes;
    json["lost"] = search.lostEvents;
    json["messages"] = _profile.messages;
    json["messages_lost"] = lostMessages();
    json["messages_damaged"] = _profile.damagedMessages;
    json["not_searched"] = _profile.notSearched;
    json["sites"] = Json::array();
    for (const OrphanSite& site : summary.sites)
        json["sites"].push_back(siteJson(site));
    json["searches"] = Json::array();
    for (const OrphanSearchTotals& one : _profile.searches)
        json["searches"].push_back({{"number", one.search.number},
                                    {"time_ns", one.timeNs},
                                    {"leaks", one.search.leaks},
                                    {"leaked_bytes", one.search.leakedBytes},
                                    {"new", one.newLeaks},
                                    {"pause_us", one.search.pauseNs / 1000},
                                    {"complete", one.whole}});
    if (options.tree)
        json["list"] = leaksJson(summary);
}

} // namespace

std::unique_ptr<InstrumentReport> readOrphanReport(const Bundle& bundle, const ReadingOptions& options)
{
    InstrumentData data = bundle.instrument(kOrphanFinderId);
    OrphanProfile profile = readOrphans(bundle, data, options);
    return std::make_unique<OrphanReport>(std::move(data), std::move(profile));
}

} // namespace vnt
