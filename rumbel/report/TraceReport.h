#pragma once

#include <memory>

#include "rumbel/report/InstrumentReport.h"

namespace vnt {

/// The Kernel Tracer: which events, system calls, and what the scheduler did.
[[nodiscard]] std::unique_ptr<InstrumentReport> readTraceReport(const Bundle& bundle, const ReadingOptions& options);

} // namespace vnt
