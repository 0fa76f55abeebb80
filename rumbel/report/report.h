#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <vector>

#include "bundle/Bundle.h"
#include "rumbel/report/InstrumentReport.h"
#include "rumbel/report/ReportOptions.h"
#include "rumbel/report/debugServer.h"

namespace vnt {

/// Reads the bundle and writes the report to `out`, errors and (for text and JSON alike) remarks about missing or
/// damaged data to `err`. Needs no server. Returns the exit status: 0, or 1 when nothing could be read or written.
int runReport(const ReportOptions& options, std::ostream& out, std::ostream& err);

/// A bundle with what was asked for of it.
struct ReadBundle {
    std::unique_ptr<Bundle> bundle;
    std::unique_ptr<StatusLine> progress; ///< told by the server
    std::unique_ptr<DebugServer> server; ///< of the reports' symbols; null: nothing is fetched
    std::vector<std::unique_ptr<InstrumentReport>> reports;
};
/// Reads the instruments that `options` names, in their order. Null when the bundle or the options are no good or
/// nothing could be read; the reason is on `err` then.
[[nodiscard]] std::optional<ReadBundle> readBundle(const ReportOptions& options, std::ostream& err);

/// One line each.
void writeRemarks(const Remarks& remarks, std::ostream& err);

} // namespace vnt
