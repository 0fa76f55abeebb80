#include "rumbel/recover/CrashedRecording.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <map>

#include "bundle/Instruments.h"
#include "platform/base/sys.h"
#include "platform/messagequeue/MessageStream.h"
#include "rumbel/recover/recoveredArchive.h"

namespace vnt::rumbel {
namespace {

namespace fs = std::filesystem;

/// A spool is named after its service.
struct InstrumentService {
    std::string_view service;
    std::string_view instrument;
};
constexpr InstrumentService kServices[] = {
    {"quillon.server.services.zeltotap", kStackSamplerId},  {"quillon.server.services.kdebugtap", kKernelTracerId},
    {"quillon.server.services.objrecord", kHeapRecorderId}, {"quillon.server.services.remoteorphans", kOrphanFinderId},
    {"quillon.server.services.activity", kProcessCensusId},
};

std::string_view instrumentOf(const RecoverableSpool& spool)
{
    for (const InstrumentService& known : kServices) {
        if (spool.identifier == known.service)
            return known.instrument;
    }
    return {};
}

/// PID of "PID.note"; 0 for another file.
pid_t recorderOf(const std::string& name)
{
    pid_t pid = 0;
    const auto parsed = std::from_chars(name.data(), name.data() + name.size(), pid);
    return parsed.ec == std::errc() && std::string_view(parsed.ptr) == ".note" ? pid : 0;
}

uint64_t fileSize(const std::string& path)
{
    const auto info = sys::statLink(path);
    return info.ok() && S_ISREG(info.value().st_mode) ? static_cast<uint64_t>(info.value().st_size) : 0;
}

/// Instruments whose stream was saved without the archive that tells how to read it.
std::vector<std::string> halfSaved(const NotedRecording& note)
{
    std::vector<std::string> found;
    for (const std::string& identifier : note.instruments) {
        const std::string archive = note.output + ".vnt/" + identifier;
        if (identifier.find('/') == std::string::npos && fileSize(archive) == 0
            && fileSize(archive + std::string(kMessageStreamSuffix)) > 0)
            found.push_back(identifier);
    }
    return found;
}

void addNotes(std::map<pid_t, CrashedRecording>& found)
{
    const auto directory = notesDirectory();
    const auto names =
        directory.ok() ? sys::listDirectory(directory.value()) : Result<std::vector<std::string>>(directory.status());
    for (const std::string& name : names.ok() ? names.value() : std::vector<std::string>()) {
        const pid_t pid = recorderOf(name);
        if (pid <= 0)
            continue;
        const std::string path = directory.value() + "/" + name;
        auto note = readNote(path);
        if (note.ok() && isStillRecording(note.value()))
            continue;
        const bool hasSpools = found.count(pid) != 0;
        if (!hasSpools && (!note.ok() || halfSaved(note.value()).empty())) {
            (void)::unlink(path.c_str()); // its data was saved, or there was none
            continue;
        }
        CrashedRecording& recording = found[pid];
        recording.recorder = pid;
        recording.notePath = path;
        if (note.ok())
            recording.note = note.take();
    }
}

/// By renaming, or by a copy between file systems.
Status moveFile(const std::string& from, const std::string& to)
{
    std::error_code error;
    fs::rename(from, to, error);
    if (error == std::errc::cross_device_link) {
        const std::string unfinished = to + ".new";
        error.clear();
        fs::copy_file(from, unfinished, fs::copy_options::overwrite_existing, error);
        if (!error)
            fs::rename(unfinished, to, error);
        if (!error)
            fs::remove(from, error);
    }
    return error ? Status::fromErrno(error.value(), to) : Status();
}

Status writeArchive(const CrashedRecording& recording, const std::string& directory, std::string_view identifier,
                    const std::string& stream, Recovered& result)
{
    ASSIGN_OR_RETURN(MessageStreamReader reader, MessageStreamReader::open(stream));
    const auto summary = reader.forEach([](std::span<const std::byte>) { return true; });
    ASSIGN_OR_RETURN(const struct stat info, sys::statFile(stream));
    const StreamFacts facts{summary.messages, static_cast<int64_t>(info.st_mtim.tv_sec)};
    ASSIGN_OR_RETURN(const auto bytes, recoveredArchive(identifier, recording.note, facts));
    RETURN_IF_ERROR(sys::writeFileAtomically(directory + "/" + std::string(identifier), bytes, 0666));
    result.messages += summary.messages;
    if (summary.truncated)
        result.remarks.push_back(std::string(identifier) + ": the last message was being written and is lost");
    return {};
}

} // namespace

uint64_t CrashedRecording::sizeBytes() const
{
    uint64_t sum = 0;
    for (const RecoverableSpool& spool : spools)
        sum += spool.sizeBytes;
    return sum;
}

std::vector<std::string> CrashedRecording::instruments() const
{
    std::vector<std::string> found;
    for (const RecoverableSpool& spool : spools) {
        const std::string_view instrument = instrumentOf(spool);
        found.push_back(instrument.empty() ? spool.identifier : std::string(instrument));
    }
    if (note) {
        const auto half = halfSaved(*note);
        found.insert(found.end(), half.begin(), half.end());
    }
    return found;
}

std::vector<CrashedRecording> crashedRecordings()
{
    std::map<pid_t, CrashedRecording> found;
    for (RecoverableSpool& spool : recoverableSpools()) {
        CrashedRecording& recording = found[spool.pid];
        recording.recorder = spool.pid;
        recording.spools.push_back(std::move(spool));
    }
    addNotes(found);
    std::vector<CrashedRecording> list;
    for (auto& [pid, recording] : found)
        list.push_back(std::move(recording));
    return list;
}

Result<Recovered> recoverRecording(const CrashedRecording& recording, const std::string& output)
{
    Recovered result;
    result.bundle = output + ".vnt";
    for (const RecoverableSpool& spool : recording.spools) {
        const std::string stream =
            result.bundle + "/" + std::string(instrumentOf(spool)) + std::string(kMessageStreamSuffix);
        if (fileSize(stream) > 0)
            return Status(Code::kExists, stream + " exists");
    }
    std::error_code error;
    fs::create_directories(result.bundle, error);
    if (error)
        return Status::fromErrno(error.value(), result.bundle);
    for (const RecoverableSpool& spool : recording.spools) {
        const std::string_view instrument = instrumentOf(spool);
        if (instrument.empty()) {
            result.remarks.push_back(spool.path + ": of an unknown service; left where it is");
            continue;
        }
        const std::string stream = result.bundle + "/" + std::string(instrument) + std::string(kMessageStreamSuffix);
        RETURN_IF_ERROR(writeArchive(recording, result.bundle, instrument, spool.path, result));
        RETURN_IF_ERROR(moveFile(spool.path, stream));
    }
    if (recording.note && recording.note->output == output) {
        for (const std::string& instrument : halfSaved(*recording.note))
            RETURN_IF_ERROR(writeArchive(recording, result.bundle, instrument,
                                         result.bundle + "/" + instrument + std::string(kMessageStreamSuffix), result));
    }
    if (!recording.note)
        result.remarks.push_back("nothing tells what was recorded: there are no function names and no settings");
    if (!recording.notePath.empty())
        (void)::unlink(recording.notePath.c_str()); // a stale one is removed by the next look
    return result;
}

Status discardRecording(const CrashedRecording& recording)
{
    Status first;
    for (const RecoverableSpool& spool : recording.spools) {
        if (::unlink(spool.path.c_str()) != 0 && errno != ENOENT && first.ok())
            first = Status::fromErrno(errno, spool.path);
    }
    if (!recording.notePath.empty())
        (void)::unlink(recording.notePath.c_str()); // a stale one is removed by the next look
    return first;
}

} // namespace vnt::rumbel
