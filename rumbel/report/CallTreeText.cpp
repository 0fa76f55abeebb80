#include "rumbel/report/CallTreeText.h"

#include <algorithm>
#include <iomanip>
#include <numeric>
#include <ostream>

#include "rumbel/report/printable.h"

namespace vnt {

namespace {

/// Deeper lines begin at this column with their depth: recursion must not push names off every screen.
constexpr size_t kMaxIndent = 60;

std::string indentation(size_t depth)
{
    if (depth <= kMaxIndent)
        return std::string(depth, ' ');
    return std::string(kMaxIndent, ' ') + "(" + std::to_string(depth) + ") ";
}

uint64_t weightOf(const ProfileWeight& weight, CallTreeOrder::By by)
{
    return by == CallTreeOrder::By::kSamples ? weight.samples : weight.blockedNs;
}

} // namespace

CallTreeOrder::CallTreeOrder(const StackProfile& profile, By by)
    : _totals(profile.nodeTotals()),
      _first(profile.nodes().size() + 1, 0),
      _children(profile.nodes().size() - 1)
{
    const std::vector<ProfileNode>& nodes = profile.nodes();
    for (size_t i = 1; i < nodes.size(); ++i)
        ++_first[nodes[i].parent + 1];
    std::partial_sum(_first.begin(), _first.end(), _first.begin());
    std::vector<uint32_t> next(_first.begin(), _first.end() - 1);
    for (size_t i = 1; i < nodes.size(); ++i)
        _children[next[nodes[i].parent]++] = static_cast<uint32_t>(i);
    for (size_t node = 0; node < nodes.size(); ++node) {
        std::sort(_children.begin() + _first[node], _children.begin() + _first[node + 1], [&](uint32_t a, uint32_t b) {
            const uint64_t weightA = weightOf(_totals[a], by);
            const uint64_t weightB = weightOf(_totals[b], by);
            return weightA != weightB ? weightA > weightB : a < b;
        });
    }
}

namespace {

void writeTree(const StackReport& report, const ReportOptions& options, CallTreeOrder::By by, std::ostream& out)
{
    const StackProfile& profile = report.recording.profile;
    const CallTreeOrder order(profile, by);
    const bool isBlocked = by == CallTreeOrder::By::kBlocked;
    const uint64_t all = weightOf(report.totals().all, by);
    const auto least = static_cast<double>(all) * options.minPercent / 100.0;
    const auto shown = [&](uint64_t weight) { return isBlocked ? duration(weight) : std::to_string(weight); };
    const int width = isBlocked ? 12 : 10;
    struct Step {
        uint32_t node = 0;
        size_t depth = 0;
    };
    std::vector<Step> steps; // still to be written, next one last
    const auto push = [&](uint32_t node, size_t depth) {
        const auto children = order.children(node);
        for (size_t i = children.size(); i-- > 0;)
            steps.push_back({children[i], depth});
    };
    size_t omitted = 0;
    out << (isBlocked ? "\n  total %     blocked   self %        self  call tree of what waited\n"
                      : "\n  total %     total   self %      self  call tree\n");
    push(0, 0);
    while (!steps.empty()) {
        const Step step = steps.back();
        steps.pop_back();
        const ProfileNode& node = profile.nodes()[step.node];
        const uint64_t total = weightOf(order.totals()[step.node], by);
        const uint64_t self = weightOf(node.self, by);
        if (total == 0 || static_cast<double>(total) < least) {
            omitted += total != 0;
            continue;
        }
        out << std::right << std::setw(9) << percent(total, all) << std::setw(width) << shown(total) << std::setw(9)
            << percent(self, all) << std::setw(width) << shown(self) << "  " << indentation(step.depth)
            << shortFunctionName(report.symbol(node.symbol).function) << "\n";
        push(step.node, step.depth + 1);
    }
    if (omitted != 0)
        out << "  (" << grouped(omitted) << (omitted == 1 ? " branch" : " branches") << " below "
            << std::setprecision(3) << options.minPercent << " % left out)\n";
}

} // namespace

void writeCallTree(const StackReport& report, const ReportOptions& options, std::ostream& out)
{
    writeTree(report, options, CallTreeOrder::By::kSamples, out);
    if (report.totals().blockedRecords != 0)
        writeTree(report, options, CallTreeOrder::By::kBlocked, out);
}

} // namespace vnt
