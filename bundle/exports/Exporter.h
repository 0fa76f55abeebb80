#pragma once

#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "bundle/exports/ExportSource.h"
#include "bundle/exports/OutputSink.h"

namespace vnt {

/// Writes one format. Used once.
class Exporter {
public:
    virtual ~Exporter() = default;
    /// Writes all that `source` holds and the format can show; the same bytes for the same bundle. Errors of writing
    /// are the sink's; those told here are why there is nothing to write, or what the scratch files' system said.
    virtual Status write(ExportSource& source, OutputSink& out) = 0;
};

struct ExportFormat {
    std::string_view name; ///< as on the command line
    std::string_view what; ///< for its help
    bool isBinary = false; ///< nothing for a terminal
    bool isCompressed = false; ///< by gzip unless asked otherwise
    bool showsOne = false; ///< one instrument a file
    uint64_t warnBytes = 0; ///< uncompressed; what is larger is known to give the viewer trouble; 0: no limit known
    std::string_view viewer;
    std::span<const std::string_view> instruments; ///< identifiers of those it can show, the usual one first
    std::unique_ptr<Exporter> (*make)();
};

[[nodiscard]] std::span<const ExportFormat> exportFormats();
/// Null when there is none of that name.
[[nodiscard]] const ExportFormat* findExportFormat(std::string_view name);

/// The instruments of `bundle` that an export shows: those asked for, or all that the format can show, or the first
/// where it can show only one. Errors: kInvalid, with the instruments that could be asked for.
Result<std::vector<std::string_view>> exportedInstruments(const ExportFormat& format, const Bundle& bundle,
                                                          const ExportOptions& options);

// The writers.
std::unique_ptr<Exporter> makeFoldedExporter();
std::unique_ptr<Exporter> makePprofExporter();
std::unique_ptr<Exporter> makePerfettoExporter();
std::unique_ptr<Exporter> makeSpeedscopeExporter();
std::unique_ptr<Exporter> makeFirefoxExporter();
std::unique_ptr<Exporter> makeCsvExporter();
std::unique_ptr<Exporter> makeJsonExporter();

} // namespace vnt
