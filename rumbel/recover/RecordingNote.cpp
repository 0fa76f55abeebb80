#include "rumbel/recover/RecordingNote.h"

#include <unistd.h>

#include <ctime>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/KeyedArchive.h"
#include "services/common/ProcFs.h"

namespace vnt::rumbel {
namespace {

constexpr int64_t kNoteVersion = 1;
constexpr size_t kMaxNoteBytes = size_t{512} << 20; // as of an archive: the signatures are nearly all of it
constexpr int32_t kAllProcesses = -3;

uint64_t startTicksOf(pid_t pid)
{
    const auto stat = procfs::processStat(pid);
    return stat.ok() ? stat.value().startTicks : 0;
}

Result<std::vector<std::byte>> encoded(const NotedRecording& note)
{
    KeyedArchiver archive;
    archive.encodeInt64(kNoteVersion, "version");
    archive.encodeInt64(note.recorder, "recorder");
    archive.encodeInt64(static_cast<int64_t>(note.recorderTicks), "recorderTicks");
    archive.encodeObject(String::create(note.output).get(), "output");
    std::vector<Ref<Object>> identifiers;
    for (const std::string& identifier : note.instruments)
        identifiers.push_back(String::create(identifier));
    const Ref<Array> instruments = Array::create(std::move(identifiers));
    archive.encodeObject(instruments.get(), "instruments");
    archive.encodeInt64(note.target, "target");
    archive.encodeInt64(note.intervalUs, "intervalUs");
    archive.encodeInt64(note.windowSec, "windowSec");
    archive.encodeInt64(note.stackOptions, "stackOptions");
    archive.encodeInt64(note.censusRate, "censusRate");
    archive.encodeBool(note.zombies, "zombies");
    archive.encodeBool(note.referenceCounts, "referenceCounts");
    archive.encodeBool(note.classNames, "classNames");
    archive.encodeBool(note.leakContents, "leakContents");
    archive.encodeBool(note.leakBacktraces, "leakBacktraces");
    archive.encodeInt64(note.startSeconds, "startSeconds");
    archive.encodeInt64(static_cast<int64_t>(note.startNs), "startNs");
    archive.encodeObject(note.signatures.get(), "signatures");
    return archive.finish();
}

} // namespace

Result<std::string> notesDirectory()
{
    ASSIGN_OR_RETURN(const std::string state, stateDirectory());
    const std::string path = state + "/recordings";
    RETURN_IF_ERROR(sys::makeDirectories(path, 0700));
    return path;
}

Result<NotedRecording> readNote(const std::string& path)
{
    ASSIGN_OR_RETURN(const struct stat info, sys::statLink(path));
    if (!S_ISREG(info.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    ASSIGN_OR_RETURN(const std::string bytes, sys::readFile(path, kMaxNoteBytes));
    PropertyListLimits limits;
    limits.maxBytes = kMaxNoteBytes;
    limits.maxObjects = size_t{64} << 20;
    ASSIGN_OR_RETURN(const KeyedUnarchiver archive, KeyedUnarchiver::open(std::as_bytes(std::span(bytes)), limits));
    NotedRecording note;
    note.recorder = static_cast<pid_t>(archive.decodeInt64("recorder"));
    if (archive.decodeInt64("version") != kNoteVersion || note.recorder <= 0)
        return Status(Code::kInvalid, path + ": not a note of this version");
    note.recorderTicks = static_cast<uint64_t>(archive.decodeInt64("recorderTicks"));
    if (const auto output = as<String>(archive.decodeObject("output")))
        note.output = output->str();
    if (const auto instruments = as<Array>(archive.decodeObject("instruments"))) {
        for (const auto& item : instruments->items()) {
            if (const auto identifier = as<String>(item))
                note.instruments.push_back(identifier->str());
        }
    }
    note.target = static_cast<int32_t>(archive.decodeInt64("target"));
    note.intervalUs = archive.decodeInt64("intervalUs");
    note.windowSec = archive.decodeInt64("windowSec");
    note.stackOptions = archive.decodeInt64("stackOptions");
    note.censusRate = archive.decodeInt64("censusRate");
    note.zombies = archive.decodeBool("zombies");
    note.referenceCounts = archive.decodeBool("referenceCounts"); // false where an earlier version wrote the note
    note.classNames = archive.decodeBool("classNames");
    note.leakContents = archive.decodeBool("leakContents");
    note.leakBacktraces = archive.decodeBool("leakBacktraces");
    note.startSeconds = archive.decodeInt64("startSeconds");
    note.startNs = static_cast<uint64_t>(archive.decodeInt64("startNs"));
    note.signatures = as<Dictionary>(archive.decodeObject("signatures"));
    return note;
}

bool isStillRecording(const NotedRecording& recording)
{
    return procfs::isRunning(recording.recorder) && startTicksOf(recording.recorder) == recording.recorderTicks;
}

RecordingNote::RecordingNote(NotedRecording recording) : _recording(std::move(recording))
{
    _recording.recorder = ::getpid();
    _recording.recorderTicks = startTicksOf(_recording.recorder);
    _recording.startSeconds = static_cast<int64_t>(std::time(nullptr));
    _recording.startNs = sys::monotonicNs();
    if (const auto directory = notesDirectory(); directory.ok())
        _path = directory.value() + "/" + std::to_string(_recording.recorder) + ".note";
}

/// True when something changed.
bool RecordingNote::gather()
{
    std::vector<pid_t> pids{0};
    if (_recording.target > 0)
        pids.push_back(_recording.target);
    if (_recording.target == kAllProcesses) {
        const auto running = procfs::runningPids();
        if (running.ok())
            pids.insert(pids.end(), running.value().begin(), running.value().end());
    }
    // Signatures of processes that ended stay: they are in the dictionary of the time before.
    auto all = _recording.signatures ? MutableDictionary::copyOf(*_recording.signatures) : MutableDictionary::create();
    bool changed = !_recording.signatures;
    for (const pid_t pid : pids) {
        const auto key = Number::withInt(pid);
        const Ref<Object> signature = _store.signatureOf(pid);
        if (!signature || all->get(*key).get() == signature.get()) // the store answers the same object until it changes
            continue;
        all->set(key, signature);
        changed = true;
    }
    _recording.signatures = all;
    return changed;
}

void RecordingNote::refresh()
{
    MutexLock guard(_lock);
    if (_path.empty() || !gather())
        return;
    const auto bytes = encoded(_recording);
    if (bytes.ok())
        (void)sys::writeFileAtomically(_path, bytes.value(), 0600); // without a note the recording goes on
}

void RecordingNote::remove()
{
    MutexLock guard(_lock);
    if (!_path.empty())
        (void)::unlink(_path.c_str()); // never written is fine
    _path.clear();
}

} // namespace vnt::rumbel
