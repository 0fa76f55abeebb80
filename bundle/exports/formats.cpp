#include <algorithm>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"

namespace vnt {

namespace {

constexpr uint64_t kMegabyte = 1'000'000;

constexpr std::string_view kWithStacks[] = {kStackSamplerId, kHeapRecorderId, kOrphanFinderId};
constexpr std::string_view kAll[] = {kStackSamplerId, kKernelTracerId, kHeapRecorderId, kOrphanFinderId,
                                     kProcessCensusId};

constexpr ExportFormat kFormats[] = {
    {"folded", "one line a call path, for flame graph programs", false, false, true, 0, "", kWithStacks,
     makeFoldedExporter},
    {"pprof", "profile.proto, for pprof", true, true, true, 300 * kMegabyte, "pprof", kWithStacks, makePprofExporter},
    {"perfetto", "one time line of all instruments, for Perfetto", true, false, false, 1000 * kMegabyte, "Perfetto",
     kAll, makePerfettoExporter},
    {"speedscope", "time and bytes by thread, for speedscope", false, false, false, 100 * kMegabyte, "speedscope",
     kWithStacks, makeSpeedscopeExporter},
    {"firefox", "samples, markers, counters and memory, for Firefox Profiler", false, false, false, 100 * kMegabyte,
     "Firefox Profiler", kAll, makeFirefoxExporter},
    {"csv", "one table: samples, events, allocation sites, leaks or processes", false, false, true, 0, "", kAll,
     makeCsvExporter},
    {"json", "everything, with all series", false, false, false, 0, "", kAll, makeJsonExporter},
};

} // namespace

std::span<const ExportFormat> exportFormats() { return kFormats; }

const ExportFormat* findExportFormat(std::string_view name)
{
    const auto found = std::find_if(std::begin(kFormats), std::end(kFormats),
                                    [&](const ExportFormat& format) { return format.name == name; });
    return found == std::end(kFormats) ? nullptr : found;
}

Result<std::vector<std::string_view>> exportedInstruments(const ExportFormat& format, const Bundle& bundle,
                                                          const ExportOptions& options)
{
    std::vector<std::string_view> shown;
    std::string could;
    for (const std::string_view identifier : format.instruments) {
        if (!bundle.hasInstrument(identifier))
            continue;
        could += (could.empty() ? "" : ", ") + std::string(identifier.substr(identifier.rfind('.') + 1));
        const auto& wanted = options.instruments;
        if (wanted.empty() || std::find(wanted.begin(), wanted.end(), identifier) != wanted.end())
            shown.push_back(identifier);
    }
    if (could.empty())
        return Status(Code::kInvalid, "the bundle holds nothing that " + std::string(format.name) + " can show");
    if (shown.empty())
        return Status(Code::kInvalid,
                      "not in the bundle, or not for " + std::string(format.name) + "; there is: " + could);
    if (format.showsOne && shown.size() > 1) {
        if (!options.instruments.empty())
            return Status(Code::kInvalid, std::string(format.name) + " shows one instrument at a time: " + could);
        shown.resize(1);
    }
    return shown;
}

} // namespace vnt
