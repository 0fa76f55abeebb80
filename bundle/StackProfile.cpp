#include "bundle/StackProfile.h"

#include <algorithm>

namespace vnt {

uint64_t ProfileTotals::lost() const
{
    const auto of = [this](stacks::LostCause cause) { return lostByCause[static_cast<size_t>(cause)]; };
    return of(stacks::LostCause::kRingFull) + of(stacks::LostCause::kBatchDropped) + of(stacks::LostCause::kMalformed)
        + of(stacks::LostCause::kWindowFull) + orphans;
}

std::vector<StackProfile::Count> StackProfile::counts() const
{
    std::vector<Count> all;
    all.reserve(_counts.size());
    for (const auto& [key, weight] : _counts)
        all.push_back({static_cast<uint32_t>(key), static_cast<uint32_t>(key >> 32), weight});
    std::sort(all.begin(), all.end(),
              [](const Count& a, const Count& b) { return a.node != b.node ? a.node < b.node : a.thread < b.thread; });
    return all;
}

std::vector<ProfileWeight> StackProfile::nodeTotals() const
{
    std::vector<ProfileWeight> totals(_nodes.size());
    for (size_t i = _nodes.size(); i-- > 0;) { // children stand behind their parents
        totals[i] += _nodes[i].self;
        if (i > 0)
            totals[_nodes[i].parent] += totals[i];
    }
    return totals;
}

std::vector<ProfileFunction> StackProfile::functions() const
{
    const std::vector<ProfileWeight> totals = nodeTotals();
    std::unordered_map<uint32_t, ProfileFunction> bySymbol;
    // A node below another one of the same function adds nothing to the function's total: its samples are in there.
    // Found without walking up from every node: children in order, then depth first with a count per open function.
    std::vector<uint32_t> firstChild(_nodes.size(), 0);
    std::vector<uint32_t> nextSibling(_nodes.size(), 0);
    for (size_t i = _nodes.size(); i-- > 1;) {
        nextSibling[i] = firstChild[_nodes[i].parent];
        firstChild[_nodes[i].parent] = static_cast<uint32_t>(i);
    }
    std::unordered_map<uint32_t, uint32_t> open;
    uint32_t at = 0;
    const auto leave = [&](uint32_t node) { --open[_nodes[node].symbol]; };
    const auto enter = [&](uint32_t node) {
        const uint32_t symbol = _nodes[node].symbol;
        ProfileFunction& function = bySymbol[symbol];
        function.symbol = symbol;
        function.self += _nodes[node].self;
        if (open[symbol]++ == 0)
            function.total += totals[node];
    };
    for (;;) {
        if (firstChild[at] != 0) {
            at = firstChild[at];
            enter(at);
            continue;
        }
        while (at != 0 && nextSibling[at] == 0) {
            leave(at);
            at = _nodes[at].parent;
        }
        if (at == 0)
            break;
        leave(at);
        at = nextSibling[at];
        enter(at);
    }
    std::vector<ProfileFunction> functions;
    functions.reserve(bySymbol.size());
    for (const auto& [symbol, function] : bySymbol)
        functions.push_back(function);
    std::sort(functions.begin(), functions.end(), [](const ProfileFunction& a, const ProfileFunction& b) {
        if (a.self.samples != b.self.samples)
            return a.self.samples > b.self.samples;
        if (a.total.samples != b.total.samples)
            return a.total.samples > b.total.samples;
        return a.symbol < b.symbol;
    });
    return functions;
}

} // namespace vnt
