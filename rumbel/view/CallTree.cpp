#include "rumbel/view/CallTree.h"

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>

namespace vnt::view {

uint32_t CallTree::child(uint32_t caller, uint32_t function)
{
    const uint64_t key = uint64_t{caller} << 32 | function;
    const auto known = _children.find(key);
    if (known != _children.end())
        return known->second;
    if (count() >= kMaxNodes)
        return caller;
    const auto number = static_cast<uint32_t>(count());
    _callers.push_back(caller);
    _functions.push_back(function);
    _children.emplace(key, number);
    return number;
}

std::vector<uint32_t> CallTree::prune(std::span<const uint64_t> weights, size_t maxNodes)
{
    std::vector<uint64_t> totals(weights.begin(), weights.end());
    totals.resize(count());
    for (size_t node = count() - 1; node > 0; --node)
        totals[_callers[node]] += totals[node];
    uint64_t least = 0;
    if (count() > maxNodes) {
        std::vector<uint64_t> ranked = totals;
        const auto last = ranked.begin() + static_cast<std::ptrdiff_t>(maxNodes - 1);
        std::nth_element(ranked.begin(), last, ranked.end(), std::greater<>());
        least = *last;
    }
    // A caller weighs as much as what it called, so what stays hangs together.
    std::vector<uint32_t> numbers(count(), 0);
    std::vector<bool> stays(count(), false);
    stays[0] = true;
    uint32_t kept = 1;
    for (size_t node = 1; node < count(); ++node) {
        const uint32_t caller = _callers[node];
        stays[node] = stays[caller] && totals[node] >= least && kept < maxNodes;
        numbers[node] = numbers[caller];
        if (!stays[node])
            continue;
        _callers[kept] = numbers[caller];
        _functions[kept] = _functions[node];
        numbers[node] = kept++;
    }
    _pruned += count() - kept;
    _callers.resize(kept);
    _functions.resize(kept);
    _children.clear();
    return numbers;
}

nlohmann::ordered_json CallTree::json(PageColumns& columns) const
{
    return {{"caller", columns.add(_callers)}, {"function", columns.add(_functions)}, {"pruned", _pruned}};
}

} // namespace vnt::view
