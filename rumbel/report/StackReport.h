#pragma once

#include <iosfwd>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "bundle/Bundle.h"
#include "rumbel/report/InstrumentReport.h"

namespace vnt {

/// The stack sampler's part of a report: everything both forms of output show.
struct StackReport {
    InstrumentData data;
    ReadingOptions reading;
    StackRecording recording;
    std::vector<ProfileFunction> functions; ///< most samples of their own first

    static StackReport read(const Bundle& bundle, const ReadingOptions& options);

    [[nodiscard]] const ProfileTotals& totals() const { return recording.profile.totals(); }
    [[nodiscard]] const Symbol& symbol(uint32_t number) const { return recording.symbolizer->symbol(number); }
    /// Processor time between two samples of a thread, in ns; 0 when not recorded.
    [[nodiscard]] uint64_t intervalNs() const;
    /// From start to stop, of what was read; where the archive does not say, from the first to the last sample.
    [[nodiscard]] uint64_t durationNs() const;
    /// Name and path of the target's executable, where known.
    [[nodiscard]] std::string targetName() const;
    [[nodiscard]] std::string targetExecutable() const;
    /// Nothing at all could be read.
    [[nodiscard]] bool isEmpty() const { return !data.hasArchive() && recording.messages == 0; }
};

/// Summary, table of functions and, when asked for, the call tree.
void writeStackText(const StackReport& report, const ReportOptions& options, std::ostream& out);
/// Who called the functions of that name and what they called, with the lines they were at.
void writeFunctionDetails(const StackReport& report, const ReportOptions& options, std::ostream& out);
void addStackJson(const StackReport& report, const ReportOptions& options, nlohmann::ordered_json& json);

[[nodiscard]] std::unique_ptr<InstrumentReport> readStackReport(const Bundle& bundle, const ReadingOptions& options);

} // namespace vnt
