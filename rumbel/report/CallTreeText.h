#pragma once

#include <iosfwd>

#include "rumbel/report/ReportOptions.h"
#include "rumbel/report/StackReport.h"

namespace vnt {

/// The call tree from the outermost functions down, the heaviest branch first; where waits were recorded also the tree
/// of these. Branches below the options' share are left out; a line says how many.
void writeCallTree(const StackReport& report, const ReportOptions& options, std::ostream& out);

/// The children of every node of a profile, heaviest first: by samples, or by time blocked.
class CallTreeOrder {
public:
    enum class By { kSamples, kBlocked };
    explicit CallTreeOrder(const StackProfile& profile, By by = By::kSamples);
    [[nodiscard]] const std::vector<ProfileWeight>& totals() const { return _totals; }
    [[nodiscard]] std::span<const uint32_t> children(uint32_t node) const
    {
        return std::span(_children).subspan(_first[node], _first[node + 1] - _first[node]);
    }

private:
    std::vector<ProfileWeight> _totals;
    std::vector<uint32_t> _first; // by node: where its children begin in _children; one more at the end
    std::vector<uint32_t> _children;
};

} // namespace vnt
