#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "rumbel/report/ReportOptions.h"

namespace vnt {

/// What `rumbel report --diff` was asked for.
struct DiffOptions {
    std::string before; ///< the bundle to compare with
    std::string after;
    ReportOptions report; ///< of it: instruments, by, fromNs and toNs (for both), json, top
    std::optional<double> thresholdPercent; ///< something that grew by more is worth its own exit status
};

} // namespace vnt
