#include "rumbel/report/diff.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>

#include "bundle/Instruments.h"
#include "rumbel/report/InstrumentReport.h"
#include "rumbel/report/printable.h"
#include "rumbel/report/report.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

using Json = nlohmann::ordered_json;

constexpr int kJsonVersion = 1;

/// One table of one instrument, compared.
struct Comparison {
    std::string identifier;
    MeasuredTable before;
    MeasuredTable after;
    std::vector<DiffRow> rows;
};

double shareOf(double part, double whole) { return whole > 0 ? 100.0 * part / whole : 0; }

std::string fixed(double value, int digits)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string number(double value) { return value == std::floor(value) ? fixed(value, 0) : fixed(value, 2); }

std::vector<Comparison> compareReports(const InstrumentReport& before, const InstrumentReport& after)
{
    std::vector<Comparison> comparisons;
    const std::vector<MeasuredTable> old = before.measures();
    const std::vector<MeasuredTable> now = after.measures();
    for (size_t i = 0; i < std::min(old.size(), now.size()); ++i) { // the same kinds in the same order
        if (old[i].entries.empty() && now[i].entries.empty())
            continue;
        comparisons.push_back({before.data().identifier(), old[i], now[i], compare(old[i], now[i])});
    }
    return comparisons;
}

bool hasGrown(const DiffRow& row, const DiffOptions& options)
{
    return options.thresholdPercent && row.growthPercent > *options.thresholdPercent;
}

void writeComparison(const Comparison& comparison, const DiffOptions& options, std::ostream& out)
{
    const auto total = [](const MeasuredTable& table) { return number(table.total) + " " + std::string(table.unit); };
    out << "\n"
        << comparison.before.title << ": " << total(comparison.before) << " before, " << total(comparison.after)
        << " after\n"
        << (comparison.before.byShare ? "   change        before  share %         after  share %  name\n"
                                      : "   growth        before  share %         after  share %  name\n");
    const size_t shown =
        options.report.top == 0 ? comparison.rows.size() : std::min(options.report.top, comparison.rows.size());
    for (size_t i = 0; i < shown; ++i) {
        const DiffRow& row = comparison.rows[i];
        out << std::right << std::setw(9) << (row.growthPercent > 0 ? "+" : "") + fixed(row.growthPercent, 2)
            << std::setw(14) << number(row.before) << std::setw(9)
            << fixed(shareOf(row.before, comparison.before.total), 2) << std::setw(14) << number(row.after)
            << std::setw(9) << fixed(shareOf(row.after, comparison.after.total), 2) << "  "
            << shortFunctionName(row.name) << (hasGrown(row, options) ? "  <- grew" : "") << "\n";
    }
    if (shown < comparison.rows.size())
        out << "           and " << grouped(comparison.rows.size() - shown) << " more\n";
}

Json rowsJson(const Comparison& comparison, const DiffOptions& options)
{
    Json rows = Json::array();
    for (const DiffRow& row : comparison.rows)
        rows.push_back(Json{{"name", row.name},
                            {"before", row.before},
                            {"after", row.after},
                            {"share_before", shareOf(row.before, comparison.before.total)},
                            {"share_after", shareOf(row.after, comparison.after.total)},
                            {"growth_percent", row.growthPercent},
                            {"grew", hasGrown(row, options)}});
    return rows;
}

void writeJson(const DiffOptions& options, const std::vector<Comparison>& comparisons, size_t grown,
               const Json& remarks, std::ostream& out)
{
    Json tables = Json::array();
    for (const Comparison& comparison : comparisons)
        tables.push_back(Json{{"instrument", comparison.identifier},
                              {"title", comparison.before.title},
                              {"unit", comparison.before.unit},
                              {"by_share", comparison.before.byShare},
                              {"total_before", comparison.before.total},
                              {"total_after", comparison.after.total},
                              {"entries", rowsJson(comparison, options)}});
    const Json whole{{"version", kJsonVersion}, {"before", options.before}, {"after", options.after},
                     {"grown", grown},          {"tables", tables},         {"remarks", remarks}};
    out << whole.dump(1, ' ', false, Json::error_handler_t::replace) << "\n";
}

} // namespace

std::vector<DiffRow> compare(const MeasuredTable& before, const MeasuredTable& after)
{
    std::vector<DiffRow> rows;
    std::set<std::string> names;
    for (const MeasuredTable* table : {&before, &after}) {
        for (const auto& [name, value] : table->entries)
            names.insert(name);
    }
    const auto of = [](const MeasuredTable& table, const std::string& name) {
        const auto found = table.entries.find(name);
        return found == table.entries.end() ? 0.0 : found->second;
    };
    for (const std::string& name : names) {
        DiffRow row{name, of(before, name), of(after, name), 0};
        row.growthPercent = before.byShare
            ? shareOf(row.after, after.total) - shareOf(row.before, before.total)
            : shareOf(row.after - row.before, before.total > 0 ? before.total : after.total);
        rows.push_back(std::move(row));
    }
    std::stable_sort(rows.begin(), rows.end(), [](const DiffRow& a, const DiffRow& b) {
        return std::abs(a.growthPercent) > std::abs(b.growthPercent);
    });
    return rows;
}

int runDiff(const DiffOptions& options, std::ostream& out, std::ostream& err)
{
    ReadBundle bundles[2];
    const std::string* paths[] = {&options.before, &options.after};
    for (size_t i = 0; i < 2; ++i) {
        ReportOptions each = options.report;
        each.bundlePath = *paths[i];
        auto read = readBundle(each, err);
        if (!read)
            return 1;
        bundles[i] = std::move(*read);
    }
    std::vector<Comparison> comparisons;
    for (const auto& before : bundles[0].reports) {
        for (const auto& after : bundles[1].reports) {
            if (before->data().identifier() != after->data().identifier())
                continue;
            for (Comparison& comparison : compareReports(*before, *after))
                comparisons.push_back(std::move(comparison));
        }
    }
    size_t grown = 0;
    for (const Comparison& comparison : comparisons)
        grown += static_cast<size_t>(std::count_if(comparison.rows.begin(), comparison.rows.end(),
                                                   [&](const DiffRow& row) { return hasGrown(row, options); }));
    if (options.report.json) {
        Json remarks = Json::array();
        for (const ReadBundle& each : bundles) {
            for (const std::string& text : each.bundle->remarks().texts())
                remarks.push_back(text);
        }
        writeJson(options, comparisons, grown, remarks, out);
    } else if (!comparisons.empty()) {
        out << printable(options.before) << "\n" << printable(options.after) << "\n";
        for (const Comparison& comparison : comparisons)
            writeComparison(comparison, options, out);
        if (options.thresholdPercent)
            out << "\n" << grouped(grown) << " grew by more than " << number(*options.thresholdPercent) << " %\n";
    }
    for (const ReadBundle& each : bundles)
        writeRemarks(each.bundle->remarks(), err);
    if (comparisons.empty() || !out.flush()) {
        err << "rumbel error: "
            << (comparisons.empty() ? "the bundles have nothing in common to compare"
                                    : "the comparison could not be written")
            << "\n";
        return 1;
    }
    return grown != 0 ? kGrewStatus : 0;
}

} // namespace vnt
