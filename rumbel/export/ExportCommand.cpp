#include "rumbel/export/ExportCommand.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <ostream>
#include <utility>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"
#include "platform/base/sys.h"
#include "rumbel/export/ExportFile.h"
#include "rumbel/report/StatusLine.h"
#include "rumbel/report/printable.h"

namespace vnt {

namespace {

constexpr const char* kErrorPrefix = "rumbel error: ";
constexpr int kNothingDone = 1;
constexpr int kMisused = 2;

/// "1.5", "1.5s", "300ms", "20us", "7ns" in nanoseconds.
std::optional<uint64_t> parseTime(std::string_view text)
{
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const std::string_view unit = text.substr(static_cast<size_t>(end - text.data()));
    double scale = 0;
    for (const auto& [name, ns] :
         {std::pair<std::string_view, double>{"", 1e9}, {"s", 1e9}, {"ms", 1e6}, {"us", 1e3}, {"ns", 1}}) {
        if (unit == name)
            scale = ns;
    }
    constexpr double kLongestNs = 9e18; // far within 64 bits
    if (error != std::errc() || scale == 0 || !(number >= 0) || number * scale > kLongestNs)
        return std::nullopt;
    return static_cast<uint64_t>(std::llround(number * scale));
}

/// The instrument's identifier for its short name, the part behind the last dot.
std::optional<std::string> identifierOf(const std::string& shortName)
{
    for (const InstrumentKind& kind : kInstrumentKinds) {
        if (kind.identifier.ends_with("." + shortName) || kind.identifier == shortName)
            return std::string(kind.identifier);
    }
    return std::nullopt;
}

Result<ExportOptions> optionsOf(const ExportCommand& command)
{
    ExportOptions options;
    for (const auto& [text, at, name] : {std::tuple(&command.from, &options.span.fromNs, "--from"),
                                         std::tuple(&command.to, &options.span.untilNs, "--to")}) {
        if (text->empty())
            continue;
        const auto time = parseTime(*text);
        if (!time)
            return Status(Code::kInvalid, std::string(name) + ": \"" + *text + "\" is no time; say 1.5 or 300ms");
        *at = *time;
    }
    if (options.span.fromNs >= options.span.untilNs)
        return Status(Code::kInvalid, "--from must be before --to");
    for (const std::string& shortName : command.instruments) {
        const auto identifier = identifierOf(shortName);
        if (!identifier)
            return Status(Code::kInvalid, "there is no instrument \"" + shortName + "\"");
        options.instruments.push_back(*identifier);
    }
    options.threads = command.threads;
    options.offCpu = command.offCpu;
    options.annotate = command.annotate;
    options.threadRoots = command.threadRoots;
    options.perfSamples = command.perfSamples;
    const size_t slash = command.output.rfind('/');
    if (command.output == "-")
        options.scratchDirectory = sys::environmentOr("TMPDIR", "/var/tmp");
    else
        options.scratchDirectory = slash == std::string::npos ? "." : command.output.substr(0, slash + 1);
    return options;
}

Compression compressionOf(const ExportFormat& format, const std::string& output)
{
    if (output.ends_with(".gz"))
        return Compression::kGzip;
    if (format.isCompressed && !output.ends_with(".pb"))
        return Compression::kGzip;
    return Compression::kNone;
}

void writeRemarks(const Remarks& remarks, std::ostream& err)
{
    for (const std::string& text : remarks.texts())
        err << "rumbel: " << printable(text) << "\n";
    if (remarks.omitted() != 0)
        err << "rumbel: and " << remarks.omitted() << " further remarks\n";
}

int fail(std::ostream& err, int status, const std::string& message)
{
    err << kErrorPrefix << printable(message) << "\n";
    return status;
}

/// Writes the export to `fd`; `source` was made for it.
Status writeExport(const ExportCommand& command, const ExportFormat& format, ExportSource& source, int fd,
                   StatusLine& progress, std::ostream& err)
{
    OutputSink sink(fd, compressionOf(format, command.output));
    RETURN_IF_ERROR(format.make()->write(source, sink));
    RETURN_IF_ERROR(sink.finish());
    progress.clear();
    if (format.warnBytes != 0 && sink.contentBytes() > format.warnBytes)
        err << "rumbel: " << bytes(sink.contentBytes()) << " are more than " << format.viewer
            << " is known to open well; --from, --to and --thread export less\n";
    return {};
}

Status exportBundle(const ExportCommand& command, const ExportFormat& format, const Bundle& bundle,
                    ExportOptions& options, const std::vector<std::string_view>& instruments, int standardOutput,
                    std::ostream& err)
{
    // Where the export itself goes to the terminal, the line would stand in it.
    const bool isShown = ::isatty(STDERR_FILENO) != 0 && (command.output != "-" || ::isatty(standardOutput) == 0);
    StatusLine progress(isShown ? &err : nullptr);
    if (isShown)
        options.onProgress = [&progress, shown = -1](double share) mutable {
            const int percent = static_cast<int>(share * 100);
            if (std::exchange(shown, percent) != percent)
                progress.show("exporting " + std::to_string(percent) + " %");
        };
    ExportSource source(bundle, options, instruments);
    std::optional<ExportFile> file;
    if (command.output != "-") {
        ASSIGN_OR_RETURN(ExportFile created, ExportFile::create(command.output));
        file.emplace(std::move(created));
    }
    RETURN_IF_ERROR(writeExport(command, format, source, file ? file->fd() : standardOutput, progress, err));
    const bool isEmpty = std::all_of(source.instruments().begin(), source.instruments().end(), [](const auto& one) {
        return !one.data.hasArchive() && one.messages.messages == 0;
    });
    if (isEmpty)
        return Status(Code::kInvalid, "nothing in the bundle could be read");
    return file ? file->keep() : Status();
}

} // namespace

std::string exportFormatNames()
{
    std::string names;
    for (const ExportFormat& format : exportFormats())
        names += (names.empty() ? "" : ", ") + std::string(format.name);
    return names;
}

int runExport(const ExportCommand& command, int standardOutput, std::ostream& err)
{
    const ExportFormat* format = findExportFormat(command.format);
    if (!format)
        return fail(err, kMisused, "there is no format \"" + command.format + "\"");
    auto parsed = optionsOf(command);
    if (!parsed.ok())
        return fail(err, kMisused, parsed.status().message());
    ExportOptions options = parsed.take();
    if (command.output == "-" && format->isBinary && ::isatty(standardOutput) != 0)
        return fail(err, kMisused, command.format + " is nothing for a terminal; name a file with -o");
    auto opened = Bundle::open(command.bundlePath);
    if (!opened.ok())
        return fail(err, kNothingDone, opened.status().message());
    const Bundle bundle = opened.take();
    const auto instruments = exportedInstruments(*format, bundle, options);
    if (!instruments.ok())
        return fail(err, kNothingDone, instruments.status().message());
    const Status status = exportBundle(command, *format, bundle, options, instruments.value(), standardOutput, err);
    writeRemarks(bundle.remarks(), err);
    return status.ok() ? 0 : fail(err, kNothingDone, status.message());
}

} // namespace vnt
