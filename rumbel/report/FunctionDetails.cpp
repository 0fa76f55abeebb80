#include <algorithm>
#include <iomanip>
#include <ostream>
#include <unordered_map>

#include "rumbel/report/CallTreeText.h"
#include "rumbel/report/printable.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

constexpr size_t kShownMatches = 10; ///< functions; more of one name are another question
constexpr uint32_t kNobody = ~0u;

/// What was called from, or calls, one function.
using Neighbours = std::unordered_map<uint32_t, uint64_t>;

struct Details {
    ProfileWeight self;
    ProfileWeight total;
    Neighbours callers; ///< samples by the caller's symbol; kNobody: an outermost frame
    Neighbours callees;
};

/// Functions of exactly that name, else those whose name contains it; most samples first.
std::vector<uint32_t> matching(const StackReport& report, const std::string& name)
{
    std::vector<uint32_t> exact;
    std::vector<uint32_t> parts;
    for (const ProfileFunction& function : report.functions) {
        const std::string& known = report.symbol(function.symbol).function;
        // "work" also names "work(int)".
        if (known == name || known.starts_with(name + "("))
            exact.push_back(function.symbol);
        else if (known.find(name) != std::string::npos)
            parts.push_back(function.symbol);
    }
    return exact.empty() ? parts : exact;
}

/// In a recursion the outermost call counts for callers, every one for callees that are other functions.
Details detailsOf(const StackProfile& profile, const std::vector<ProfileWeight>& totals, uint32_t symbol)
{
    Details details;
    const std::vector<ProfileNode>& nodes = profile.nodes();
    std::vector<bool> isBelow(nodes.size(), false); // at or below a node of the function
    for (size_t i = 1; i < nodes.size(); ++i) {
        const ProfileNode& node = nodes[i];
        const bool isParentBelow = node.parent != 0 && isBelow[node.parent];
        isBelow[i] = isParentBelow || node.symbol == symbol;
        if (node.symbol == symbol) {
            details.self += node.self;
            if (!isParentBelow) {
                details.total += totals[i];
                details.callers[node.parent == 0 ? kNobody : nodes[node.parent].symbol] += totals[i].samples;
            }
        } else if (node.parent != 0 && nodes[node.parent].symbol == symbol) {
            details.callees[node.symbol] += totals[i].samples;
        }
    }
    return details;
}

void writeNeighbours(const StackReport& report, const char* title, const Neighbours& neighbours, size_t top,
                     std::ostream& out)
{
    std::vector<std::pair<uint64_t, std::string>> rows;
    for (const auto& [symbol, samples] : neighbours) {
        if (samples != 0)
            rows.emplace_back(samples, symbol == kNobody ? "(outermost)" : report.symbol(symbol).function);
    }
    std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) {
        return a.first != b.first ? a.first > b.first : a.second < b.second;
    });
    const size_t shown = top == 0 ? rows.size() : std::min(top, rows.size());
    out << "\n  " << title << (rows.empty() ? ": nothing\n" : "\n");
    for (size_t i = 0; i < shown; ++i)
        out << std::right << std::setw(9) << percent(rows[i].first, report.totals().all.samples) << std::setw(10)
            << rows[i].first << "  " << shortFunctionName(rows[i].second) << "\n";
    if (shown < rows.size())
        out << "            and " << grouped(rows.size() - shown) << " more\n";
}

} // namespace

void writeFunctionDetails(const StackReport& report, const ReportOptions& options, std::ostream& out)
{
    const std::vector<uint32_t> symbols = matching(report, options.function);
    if (symbols.empty()) {
        out << "\n  No function of that name was sampled: " << printable(options.function) << "\n";
        return;
    }
    const StackProfile& profile = report.recording.profile;
    const std::vector<ProfileWeight> totals = profile.nodeTotals();
    const uint64_t all = report.totals().all.samples;
    for (size_t i = 0; i < std::min(symbols.size(), kShownMatches); ++i) {
        const Details details = detailsOf(profile, totals, symbols[i]);
        const Symbol& symbol = report.symbol(symbols[i]);
        out << "\n" << printable(symbol.function) << "\n";
        if (!symbol.path.empty())
            writeLine(out, "Module", printable(symbol.path));
        writeLine(out, "Self",
                  plural(details.self.samples, "sample") + ", " + percent(details.self.samples, all) + " %");
        writeLine(out, "Total",
                  plural(details.total.samples, "sample") + ", " + percent(details.total.samples, all) + " %");
        if (details.total.blockedNs != 0)
            writeLine(out, "Blocked", duration(details.total.blockedNs));
        writeNeighbours(report, "called by", details.callers, options.top, out);
        writeNeighbours(report, "calls", details.callees, options.top, out);
    }
    if (symbols.size() > kShownMatches)
        out << "\n  and " << plural(symbols.size() - kShownMatches, "further function") << " of that name\n";
}

} // namespace vnt
