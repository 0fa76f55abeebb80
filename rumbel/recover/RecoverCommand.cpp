#include "rumbel/recover/RecoverCommand.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "rumbel/recover/CrashedRecording.h"
#include "rumbel/report/printable.h"

namespace vnt::rumbel {
namespace {

using Json = nlohmann::ordered_json;

std::string localTime(int64_t seconds)
{
    const std::time_t time = seconds;
    std::tm local{};
    ::localtime_r(&time, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string shortNames(const CrashedRecording& recording)
{
    std::string names;
    for (const std::string& identifier : recording.instruments())
        names += (names.empty() ? "" : ",") + identifier.substr(identifier.rfind('.') + 1);
    return names;
}

std::string targetOf(const CrashedRecording& recording)
{
    if (!recording.note)
        return "unknown";
    const int32_t target = recording.note->target;
    return target == -3 ? "all processes" : "process " + std::to_string(target);
}

Json asJson(const CrashedRecording& recording)
{
    Json entry{
        {"recorder", recording.recorder}, {"instruments", recording.instruments()}, {"bytes", recording.sizeBytes()}};
    if (recording.note) {
        entry["target"] = recording.note->target;
        entry["start"] = recording.note->startSeconds;
        entry["output"] = recording.note->output + ".vnt";
    }
    return entry;
}

void list(const std::vector<CrashedRecording>& recordings, bool json, std::ostream& out, std::ostream& err)
{
    if (json) {
        Json all = Json::array();
        for (const CrashedRecording& recording : recordings)
            all.push_back(asJson(recording));
        out << all.dump(1, ' ', false, Json::error_handler_t::replace) << "\n";
        return;
    }
    if (recordings.empty())
        err << "rumbel: no recording was left behind\n";
    for (const CrashedRecording& recording : recordings) {
        out << std::right << std::setw(8) << recording.recorder << "  " << std::left << std::setw(19)
            << (recording.note ? localTime(recording.note->startSeconds) : "unknown time") << "  " << std::right
            << std::setw(9) << (recording.sizeBytes() + 1023) / 1024 << " KiB  " << std::left << std::setw(16)
            << targetOf(recording) << "  " << printable(shortNames(recording)) << "  "
            << (recording.note ? printable(recording.note->output) + ".vnt" : "") << "\n";
    }
}

std::string outputOf(const CrashedRecording& recording, const RecoverOptions& options)
{
    constexpr std::string_view kExtension = ".vnt";
    std::string output = options.output;
    if (output.empty())
        output = recording.note && !recording.note->output.empty() ? recording.note->output
                                                                   : "recovered-" + std::to_string(recording.recorder);
    while (output.size() > 1 && output.back() == '/')
        output.pop_back();
    if (output.size() > kExtension.size() && output.ends_with(kExtension))
        output.resize(output.size() - kExtension.size());
    return output;
}

bool recoverOne(const CrashedRecording& recording, const RecoverOptions& options, std::ostream& out, std::ostream& err)
{
    const auto recovered = recoverRecording(recording, outputOf(recording, options));
    if (!recovered.ok()) {
        err << "rumbel: recording " << recording.recorder << ": " << printable(recovered.status().message())
            << (recovered.status().code() == Code::kExists ? "; name another bundle with -o" : "") << "\n";
        return false;
    }
    for (const std::string& remark : recovered.value().remarks)
        err << "rumbel: " << printable(remark) << "\n";
    out << printable(recovered.value().bundle) << "\n";
    return true;
}

bool discardOne(const CrashedRecording& recording, std::ostream& err)
{
    const Status status = discardRecording(recording);
    if (!status.ok())
        err << "rumbel: " << printable(status.message()) << "\n";
    return status.ok();
}

} // namespace

void addRecover(CLI::App& tool, RecoverOptions& options)
{
    CLI::App* recover = tool.add_subcommand("recover", "Make bundles of recordings whose tool was killed");
    auto* which =
        recover->add_option("recording", options.recorder, "The recording, as the list names it; none: list them");
    auto* all = recover->add_flag("--all", options.all, "Every recording of the list")->excludes(which);
    recover->add_option("-o,--output", options.output, "Bundle to save, instead of where it was going to be")
        ->excludes(all);
    recover->add_flag("--discard", options.discard, "Remove what was recorded instead");
    recover->add_flag("--json", options.json, "The list as a JSON array, for programs");
    recover->callback([&options] {
        if (!options.recorder && !options.all && (options.discard || !options.output.empty()))
            throw CLI::ValidationError("recover", "needs the recording's number, or --all");
    });
}

int runRecover(const RecoverOptions& options, std::ostream& out, std::ostream& err)
{
    const std::vector<CrashedRecording> recordings = crashedRecordings();
    if (!options.recorder && !options.all) {
        list(recordings, options.json, out, err);
        return 0;
    }
    bool found = options.all;
    bool good = true;
    for (const CrashedRecording& recording : recordings) {
        if (!options.all && recording.recorder != *options.recorder)
            continue;
        found = true;
        good = (options.discard ? discardOne(recording, err) : recoverOne(recording, options, out, err)) && good;
    }
    if (!found)
        err << "rumbel: no recording " << *options.recorder << " was left behind\n";
    return found && good ? 0 : 1;
}

} // namespace vnt::rumbel
