#pragma once

#include <iosfwd>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "bundle/Bundle.h"
#include "rumbel/report/MeasuredTable.h"
#include "rumbel/report/ReportOptions.h"

namespace vnt {

/// One instrument's part of a report: read once, then written in either form. The bundle outlives it.
class InstrumentReport {
public:
    virtual ~InstrumentReport() = default;
    [[nodiscard]] virtual const InstrumentData& data() const = 0;
    /// Nothing at all could be read.
    [[nodiscard]] virtual bool isEmpty() const = 0;
    /// A summary one screen long, then what `options` asks for.
    virtual void writeText(const ReportOptions& options, std::ostream& out) const = 0;
    /// Adds the instrument's own keys.
    virtual void addJson(const ReportOptions& options, nlohmann::ordered_json& json) const = 0;
    /// What two recordings are compared by; nothing by default.
    [[nodiscard]] virtual std::vector<MeasuredTable> measures() const { return {}; }
};

/// Reads an instrument's part of a bundle. Never null, never fails: what cannot be read is missing and told in the
/// bundle's remarks. A kind without a reader of its own answers with what its archive says.
[[nodiscard]] std::unique_ptr<InstrumentReport> readInstrument(const Bundle& bundle, const std::string& identifier,
                                                               const ReadingOptions& options = {});

} // namespace vnt
