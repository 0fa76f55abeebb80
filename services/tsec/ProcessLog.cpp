#include "services/tsec/ProcessLog.h"

#include <algorithm>

#include "records/Signature.h"
#include "services/common/SignatureEncoder.h"

namespace vnt {
namespace {

// Distinct files that are remembered before those of no process are forgotten.
constexpr size_t kMaxFiles = 65536;
constexpr size_t kCommLength = 15; // TASK_COMM_LEN - 1 (include/linux/sched.h): longer names arrive cut

} // namespace

ProcessLog::ProcessPtr& ProcessLog::ensure(uint64_t timeNs, pid_t pid)
{
    ProcessPtr& process = _running[pid];
    if (!process) {
        process = std::make_shared<Process>();
        process->pid = pid;
        process->startedNs = timeNs;
    }
    return process;
}

void ProcessLog::end(uint64_t timeNs, pid_t pid)
{
    const auto found = _running.find(pid);
    if (found == _running.end())
        return;
    found->second->endedNs = timeNs;
    found->second->images.shrink_to_fit();
    _ended.push_back(std::move(found->second));
    _running.erase(found);
    makeRoom();
}

void ProcessLog::makeRoom()
{
    while (!_ended.empty() && (_ended.size() > _limits.endedProcesses || _images > _limits.images)) {
        _images -= _ended.front()->images.size();
        _ended.pop_front();
        ++_dropped;
    }
}

void ProcessLog::dropImages(Process& process, size_t count)
{
    process.images.erase(process.images.begin(), process.images.begin() + static_cast<std::ptrdiff_t>(count));
    _images -= count;
}

std::shared_ptr<const ProcessLog::File> ProcessLog::fileOf(const std::string& path, const std::string& buildId)
{
    std::shared_ptr<const File>& file = _files[buildId + "\n" + path];
    if (file)
        return file;
    file = std::make_shared<const File>(File{path, buildId});
    auto made = file;
    if (_files.size() > kMaxFiles) {
        std::erase_if(_files, [](const auto& entry) { return entry.second.use_count() == 1; });
        if (_files.size() > kMaxFiles)
            _files.clear(); // all in use: they stay with their images, and are no longer shared
    }
    return made;
}

void ProcessLog::addImage(Process& process, const MappingEvent& event)
{
    // First, so that a program that maps code without end costs no time either.
    if (process.images.size() >= _limits.imagesPerProcess)
        return;
    for (auto known = process.images.rbegin(); known != process.images.rend() && known->file; ++known) {
        if (known->start == event.start && known->sizeBytes == event.sizeBytes && known->fileOffset == event.fileOffset
            && known->file->path == event.path)
            return;
    }
    if (_images >= _limits.images) {
        makeRoom();
        if (_ended.empty() && _images >= _limits.images)
            return; // all of running processes; they keep what they have
    }
    process.images.push_back(
        {event.start, event.sizeBytes, event.fileOffset, event.timeNs, fileOf(event.path, event.buildId)});
    ++_images;
}

void ProcessLog::onFork(uint64_t timeNs, pid_t parent, pid_t child)
{
    MutexLock guard(_lock);
    if (const auto known = _running.find(child); known != _running.end() && known->second->scannedNs > timeNs) {
        // A scan was quicker than this record. What it saw is what the child became.
        known->second->startedNs = timeNs;
        known->second->parent = parent;
        return;
    }
    end(timeNs, child); // its end was lost
    auto process = std::make_shared<Process>();
    process->pid = child;
    process->parent = parent;
    process->startedNs = timeNs;
    if (const auto found = _running.find(parent); found != _running.end()) {
        const Process& from = *found->second;
        process->name = from.name;
        process->executable = from.executable;
        // What the parent has now; what it had before an exec was never the child's.
        const auto exec =
            std::find_if(from.images.rbegin(), from.images.rend(), [](const Image& i) { return !i.file; });
        if (_images < _limits.images)
            process->images.assign(exec.base(), from.images.end());
        process->inherited = process->images.size();
        _images += process->inherited;
    }
    _running[child] = std::move(process);
    makeRoom();
}

void ProcessLog::onExec(uint64_t timeNs, pid_t pid, const std::string& name)
{
    MutexLock guard(_lock);
    Process& process = *ensure(timeNs, pid);
    // The inherited images stand in the parent's signature: a copy of them for each of ten thousand children would not.
    dropImages(process, std::exchange(process.inherited, 0));
    if (!process.images.empty() && process.images.back().file) {
        process.images.push_back({0, 0, 0, timeNs, nullptr});
        ++_images;
    }
    process.execNs = timeNs;
    process.name = name;
    process.executable.clear();
}

void ProcessLog::onMapping(const MappingEvent& event)
{
    MutexLock guard(_lock);
    Process& process = *ensure(event.timeNs, event.pid);
    addImage(process, event);
    if (!process.executable.empty() || event.path.empty() || event.path[0] != '/')
        return;
    // The first file that is mapped after an exec is the program.
    process.executable = event.path;
    const std::string base = event.path.substr(event.path.rfind('/') + 1);
    if (process.name.size() >= kCommLength && base.starts_with(process.name))
        process.name = base;
}

void ProcessLog::onExit(uint64_t timeNs, pid_t pid)
{
    MutexLock guard(_lock);
    end(timeNs, pid);
}

void ProcessLog::onLost(uint64_t count)
{
    MutexLock guard(_lock);
    _lost += count;
}

void ProcessLog::onScanned(uint64_t startedNs, ScannedProcess scanned)
{
    MutexLock guard(_lock);
    Process& process = *ensure(startedNs, scanned.pid);
    if (process.parent == 0)
        process.parent = scanned.parent;
    if (process.startedNs > std::max(startedNs, scanned.lookedNs) || process.execNs > scanned.lookedNs)
        return; // another program by now, or another process
    process.scannedNs = scanned.lookedNs;
    process.name = std::move(scanned.name);
    if (process.executable.empty())
        process.executable = std::move(scanned.executable);
    for (const MappingEvent& image : scanned.images)
        addImage(process, image);
}

void ProcessLog::onScanEnd(uint64_t beganNs, const std::set<pid_t>& running)
{
    MutexLock guard(_lock);
    std::vector<pid_t> gone;
    for (const auto& [pid, process] : _running) {
        if (process->startedNs < beganNs && running.count(pid) == 0)
            gone.push_back(pid);
    }
    for (const pid_t pid : gone)
        end(beganNs, pid);
}

Ref<Dictionary> ProcessLog::encode(const Process& process)
{
    bool is64Bit = process.images.empty();
    for (const Image& image : process.images)
        is64Bit = is64Bit || image.start > UINT32_MAX;
    SignatureEncoder encoder(process.pid, process.name, process.executable, is64Bit);
    if (process.parent != 0)
        encoder.set(signature::kParent, Number::withInt(process.parent));
    if (process.startedNs != 0)
        encoder.set(signature::kStarted, Number::withUint64(process.startedNs));
    if (process.endedNs != 0)
        encoder.set(signature::kEnded, Number::withUint64(process.endedNs));
    static const File none;
    for (const Image& image : process.images) {
        const File& file = image.file ? *image.file : none;
        encoder.addImage(
            {image.start, image.sizeBytes, image.fileOffset, image.timeNs, !image.file, file.path, file.buildId});
    }
    return encoder.take();
}

Ref<Dictionary> ProcessLog::signaturesSince(uint64_t sinceNs) const
{
    std::vector<ProcessPtr> ended;
    std::vector<Process> running; // copies: these may change while they are encoded
    uint64_t dropped = 0, lost = 0;
    {
        MutexLock guard(_lock);
        size_t images = 0;
        const auto fits = [&](const Process& process) {
            // A thread of the kernel's own has neither; there is nothing to say of it.
            if (process.images.empty() && process.name.empty())
                return false;
            return (images += process.images.size()) <= _limits.imagesPerAnswer;
        };
        dropped = _dropped;
        lost = _lost;
        for (const auto& [pid, process] : _running) {
            if (process->startedNs >= sinceNs && fits(*process))
                running.push_back(*process);
        }
        for (auto process = _ended.rbegin(); process != _ended.rend() && (*process)->endedNs >= sinceNs; ++process) {
            if (fits(**process))
                ended.push_back(*process);
            else if (!(*process)->images.empty())
                ++dropped;
        }
    }
    auto signatures = MutableArray::create();
    for (auto process = ended.rbegin(); process != ended.rend(); ++process)
        signatures->append(encode(**process));
    for (const Process& process : running)
        signatures->append(encode(process));
    auto result = MutableDictionary::create();
    result->set(signature::kVersionKey, Number::withInt(signature::kVersion));
    result->set(signature::kWatchSince, Number::withUint64(sinceNs));
    result->set(signature::kWatchDropped, Number::withUint64(dropped));
    result->set(signature::kWatchLost, Number::withUint64(lost));
    result->set(signature::kWatchSignatures, signatures);
    return result;
}

size_t ProcessLog::imagesForTesting() const
{
    MutexLock guard(_lock);
    return _images;
}

} // namespace vnt
