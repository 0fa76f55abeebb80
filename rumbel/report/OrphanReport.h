#pragma once

#include <memory>

#include "rumbel/report/InstrumentReport.h"

namespace vnt {

/// The orphan finder's part of a report: what is lost, how, and the functions that allocated it.
[[nodiscard]] std::unique_ptr<InstrumentReport> readOrphanReport(const Bundle& bundle, const ReadingOptions& options);

} // namespace vnt
