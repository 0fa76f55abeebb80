#pragma once

#include <memory>

#include "rumbel/report/InstrumentReport.h"

namespace vnt {

/// The Process Census: who used the machine while the recording ran.
[[nodiscard]] std::unique_ptr<InstrumentReport> readCensusReport(const Bundle& bundle, const ReadingOptions& options);

} // namespace vnt
