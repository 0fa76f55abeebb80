#include "rumbel/report/report.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>

#include "bundle/Instruments.h"
#include "rumbel/report/InstrumentReport.h"
#include "rumbel/report/printable.h"

namespace vnt {

namespace {

constexpr const char* kErrorPrefix = "rumbel error: ";

using Json = nlohmann::ordered_json;

/// The report's own format, raised when a key changes its meaning.
constexpr int kJsonVersion = 1;

using Reports = std::vector<std::unique_ptr<InstrumentReport>>;

void writeText(const Bundle& bundle, const Reports& reports, const ReportOptions& options, std::ostream& out)
{
    out << printable(bundle.path()) << "\n";
    for (const auto& report : reports) {
        out << "\n";
        report->writeText(options, out);
    }
}

void addCommon(Json& instrument, const InstrumentData& data)
{
    for (const InstrumentKind& kind : kInstrumentKinds) {
        if (kind.identifier == data.identifier())
            instrument["name"] = kind.displayName;
    }
    if (data.pid())
        instrument["pid"] = *data.pid();
    instrument["start_time"] = data.startSeconds();
    instrument["stop_time"] = data.stopSeconds();
}

void writeJson(const Bundle& bundle, const Reports& reports, const ReportOptions& options, std::ostream& out)
{
    Json instruments = Json::object();
    for (const auto& report : reports) {
        Json json;
        addCommon(json, report->data());
        report->addJson(options, json);
        instruments[report->data().identifier()] = std::move(json);
    }
    const Json whole{{"version", kJsonVersion},
                     {"bundle", bundle.path()},
                     {"instruments", std::move(instruments)},
                     {"remarks", bundle.remarks().texts()}};
    // Names come from foreign files: what is not UTF-8 is replaced, not refused.
    out << whole.dump(1, ' ', false, Json::error_handler_t::replace) << "\n";
}

Result<std::vector<std::string>> chosenInstruments(const Bundle& bundle, const std::vector<std::string>& names)
{
    if (names.empty())
        return bundle.instruments();
    std::vector<std::string> chosen;
    for (const std::string& name : names) {
        const std::string identifier = instrumentIdentifier(name);
        if (identifier.empty())
            return Status(Code::kInvalid, name + ": no such instrument");
        if (!bundle.hasInstrument(identifier))
            return Status(Code::kNotFound, bundle.path() + ": holds nothing of " + name);
        chosen.push_back(identifier);
    }
    return chosen;
}

Result<ReadingOptions> readingOptions(const Bundle& bundle, const ReportOptions& options)
{
    ReadingOptions reading;
    if (options.by == ReportOptions::By::kModule)
        reading.detail = ReadingOptions::Detail::kModule;
    if (options.by == ReportOptions::By::kLine)
        reading.detail = ReadingOptions::Detail::kLine;
    if (!options.fromNs && !options.toNs)
        return reading;
    uint64_t startNs = 0;
    for (const std::string& identifier : bundle.instruments()) {
        const uint64_t ns = bundle.instrument(identifier).startNs();
        if (ns != 0 && (startNs == 0 || ns < startNs))
            startNs = ns;
    }
    if (startNs == 0)
        return Status(Code::kCorrupt, bundle.path() + ": does not say when it began, so no time can be picked");
    const auto at = [&](uint64_t ns) { return startNs + std::min(ns, ~startNs); };
    reading.span = {at(options.fromNs.value_or(0)), options.toNs ? at(*options.toNs) : TimeSpan().untilNs};
    if (!options.fromNs)
        reading.span.fromNs = 0;
    if (reading.span.fromNs >= reading.span.untilNs)
        return Status(Code::kInvalid, "the time to read ends before it begins");
    return reading;
}

} // namespace

void writeRemarks(const Remarks& remarks, std::ostream& err)
{
    for (const std::string& text : remarks.texts())
        err << "rumbel: " << printable(text) << "\n";
    if (remarks.omitted() != 0)
        err << "rumbel: and " << remarks.omitted() << " further remarks\n";
}

std::optional<ReadBundle> readBundle(const ReportOptions& options, std::ostream& err)
{
    const auto fail = [&](const std::string& text) {
        err << kErrorPrefix << printable(text) << "\n";
        return std::nullopt;
    };
    auto opened = Bundle::open(options.bundlePath);
    if (!opened.ok())
        return fail(opened.status().message());
    ReadBundle read;
    read.bundle = std::make_unique<Bundle>(opened.take());
    const auto chosen = chosenInstruments(*read.bundle, options.instruments);
    if (!chosen.ok())
        return fail(chosen.status().message());
    const auto reading = readingOptions(*read.bundle, options);
    if (!reading.ok())
        return fail(reading.status().message());
    read.progress = std::make_unique<StatusLine>(options.showProgress ? &err : nullptr);
    if (options.debuginfod)
        read.server = openDebugServer(*read.bundle, *read.progress);
    bool nothingRead = true;
    for (const std::string& identifier : chosen.value()) {
        read.progress->show("reading " + identifier);
        read.reports.push_back(readInstrument(*read.bundle, identifier, reading.value()));
        nothingRead = nothingRead && read.reports.back()->isEmpty();
    }
    read.progress->clear();
    if (nothingRead) {
        writeRemarks(read.bundle->remarks(), err);
        return fail("nothing in the bundle could be read");
    }
    return read;
}

int runReport(const ReportOptions& asked, std::ostream& out, std::ostream& err)
{
    ReportOptions options = asked;
    if (!options.suppressionsPath.empty()) {
        auto suppressions = Suppressions::read(options.suppressionsPath);
        if (!suppressions.ok()) {
            err << kErrorPrefix << printable(suppressions.status().message()) << "\n";
            return 1;
        }
        options.suppressions = suppressions.take();
    }
    const auto read = readBundle(options, err);
    if (!read)
        return 1;
    if (options.json)
        writeJson(*read->bundle, read->reports, options, out);
    else
        writeText(*read->bundle, read->reports, options, out);
    out.flush();
    writeRemarks(read->bundle->remarks(), err);
    if (!out) {
        err << kErrorPrefix << "the report could not be written\n";
        return 1;
    }
    return 0;
}

} // namespace vnt
