#pragma once

#include <iosfwd>
#include <vector>

#include "rumbel/report/DiffOptions.h"
#include "rumbel/report/MeasuredTable.h"

namespace vnt {

/// One thing in two recordings.
struct DiffRow {
    std::string name;
    double before = 0;
    double after = 0;
    /// In per cent: of what both recordings are compared by the shares of, the difference of the shares; of everything
    /// else, the growth as a part of the first recording's total (of the second's, when the first has nothing).
    double growthPercent = 0;
};

/// The rows of two tables of one kind, largest change first.
[[nodiscard]] std::vector<DiffRow> compare(const MeasuredTable& before, const MeasuredTable& after);

/// Exit status of a comparison that found growth beyond the threshold.
inline constexpr int kGrewStatus = 3;

/// Compares two bundles instrument by instrument. Returns the exit status: 0, kGrewStatus when something grew by more
/// than the threshold, 1 when one cannot be read or they have no instrument in common. Losses of both are written
/// beside.
int runDiff(const DiffOptions& options, std::ostream& out, std::ostream& err);

} // namespace vnt
