#pragma once

#include <memory>

#include "rumbel/report/InstrumentReport.h"

namespace vnt {

/// The heap recorder's part of a report: totals, sizes, and the functions that allocated most.
[[nodiscard]] std::unique_ptr<InstrumentReport> readHeapReport(const Bundle& bundle, const ReadingOptions& options);

} // namespace vnt
