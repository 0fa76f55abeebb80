#include "services/quillon/SignatureStore.h"

#include <sys/auxv.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>

#include "collectors/common/family.h"
#include "platform/base/sys.h"
#include "records/Signature.h"
#include "services/common/ProcFs.h"
#include "services/common/SignatureEncoder.h"
#include "services/quillon/KernelSymbols.h"

namespace vnt {
namespace {

/// Enough for any program; beyond, a process that maps code without end is cut, not us.
constexpr size_t kMaxImagesPerProcess = 65536;
constexpr size_t kMaxKernelAddresses = 1u << 20;
/// Some 5 KB each. A recorded build makes thousands; the default pid_max is twice as much.
constexpr size_t kMaxProcesses = 16384;

Ref<Object> vdsoImage()
{
    const auto* start = reinterpret_cast<const std::byte*>(::getauxval(AT_SYSINFO_EHDR));
    if (!start)
        return nullptr;
    const auto mappings = procfs::codeMappings(::getpid());
    if (!mappings.ok())
        return nullptr;
    for (const procfs::CodeMapping& mapping : mappings.value()) {
        if (mapping.path == "[vdso]")
            return Data::create({start, static_cast<size_t>(mapping.sizeBytes)});
    }
    return nullptr;
}

std::string linkTarget(const std::string& path)
{
    char target[4096];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

} // namespace

Ref<Object> SignatureStore::signatureOf(pid_t pid)
{
    if (pid == 0)
        return kernelSignature();
    if (pid < 0)
        return nullptr;
    MutexLock guard(_lock);
    auto found = _processes.find(pid);
    if (found == _processes.end()) {
        Process process;
        if (!refresh(pid, process))
            return nullptr;
        found = _processes.emplace(pid, std::move(process)).first;
    } else if (!found->second.ended && !refresh(pid, found->second)) {
        found->second.ended = true;
    }
    const Ref<Object> own = encoded(pid, found->second);
    return _families.count(pid) ? withFamily(pid, own) : own;
}

Ref<Object> SignatureStore::encoded(pid_t pid, Process& process)
{
    if (!process.encoded)
        process.encoded = encode(pid, process);
    return process.encoded;
}

void SignatureStore::keepFamilyOf(pid_t pid)
{
    if (pid <= 0)
        return;
    (void)signatureOf(pid); // what it begins with
    MutexLock guard(_lock);
    _families.insert(pid);
    for (const pid_t member : processesOfFamily(pid)) {
        Process process;
        process.parent = pid; // or one between
        if (member != pid && !_processes.count(member) && refresh(member, process))
            _processes.emplace(member, std::move(process));
    }
}

bool SignatureStore::descends(pid_t pid, pid_t ancestor) const
{
    // Numbers are used again, so parents might lead in a circle.
    for (size_t steps = 0; steps < _processes.size(); ++steps) {
        const auto found = _processes.find(pid);
        if (found == _processes.end() || found->second.parent == 0)
            return false;
        pid = found->second.parent;
        if (pid == ancestor)
            return true;
    }
    return false;
}

Ref<Object> SignatureStore::withFamily(pid_t pid, const Ref<Object>& own)
{
    auto children = MutableArray::create();
    for (auto& [child, process] : _processes) {
        if (child == pid || !descends(child, pid))
            continue;
        if (!process.ended && !refresh(child, process))
            process.ended = true;
        children->append(encoded(child, process));
    }
    if (children->count() == 0)
        return own;
    auto whole = MutableDictionary::create();
    const auto* dictionary = as<Dictionary>(own.get());
    for (const auto& [key, value] : dictionary->entries())
        whole->set(key, value);
    whole->set(signature::kChildren, children);
    return whole;
}

Ref<Dictionary> SignatureStore::expiredSignatures()
{
    MutexLock guard(_lock);
    auto expired = MutableDictionary::create();
    for (auto& [pid, process] : _processes) {
        if (!process.ended && procfs::isRunning(pid))
            continue;
        process.ended = true;
        expired->set(Number::withInt(pid), encoded(pid, process));
    }
    return expired;
}

bool SignatureStore::refresh(pid_t pid, Process& process)
{
    const auto stat = procfs::processStat(pid);
    if (!stat.ok() || stat.value().state == 'Z')
        return false;
    const auto mappings = procfs::codeMappings(pid);
    if (!mappings.ok() || mappings.value().empty())
        return !process.images.empty(); // a kernel thread, another user's process, or one that just ended
    const bool reused = process.startTicks != 0 && process.startTicks != stat.value().startTicks;
    if (reused)
        return false; // the pid went to another process: the signature stays that of the first
    if (process.startTicks == 0) {
        process.startTicks = stat.value().startTicks;
        const auto name = procfs::executableName(pid);
        process.name = name.ok() ? name.value() : stat.value().comm;
        process.executable = linkTarget("/proc/" + std::to_string(pid) + "/exe");
        const uint64_t highest = mappings.value().back().start;
        const bool hasVsyscall = highest > UINT32_MAX && mappings.value().back().path == "[vsyscall]";
        process.is64Bit = hasVsyscall || highest > UINT32_MAX;
    }
    for (const procfs::CodeMapping& mapping : mappings.value()) {
        Image image;
        image.start = mapping.start;
        image.sizeBytes = mapping.sizeBytes;
        image.fileOffset = mapping.fileOffset;
        image.path = mapping.path;
        Image* added = addImage(process, std::move(image));
        if (added && added->path.starts_with('/'))
            added->buildId = buildIdOf(pid, *added);
    }
    readPerfMap(pid, process);
    return true;
}

/// Just-in-time compilers that were asked to (for perf) write one below /tmp, named after the process's number in its
/// own namespace.
void SignatureStore::readPerfMap(pid_t pid, Process& process)
{
    std::string text = procfs::perfMapOf(pid);
    if (text.empty() || text == process.perfMap)
        return;
    process.perfMap = std::move(text);
    process.encoded = nullptr;
}

/// The added image, or null when it is already known in the present address space.
SignatureStore::Image* SignatureStore::addImage(Process& process, Image image)
{
    bool overlaps = false;
    for (auto known = process.images.rbegin(); known != process.images.rend() && !known->exec; ++known) {
        if (known->start == image.start && known->sizeBytes == image.sizeBytes && known->fileOffset == image.fileOffset
            && known->path == image.path)
            return nullptr;
        overlaps =
            overlaps || (image.start < known->start + known->sizeBytes && known->start < image.start + image.sizeBytes);
    }
    if (process.images.size() >= kMaxImagesPerProcess)
        return nullptr;
    // Nobody saw it appear. Where nothing was before, the address can only mean this image, whenever it came.
    if (image.timeNs == 0 && overlaps)
        image.timeNs = sys::monotonicNs();
    process.encoded = nullptr;
    return &process.images.emplace_back(std::move(image));
}

std::string SignatureStore::buildIdOf(pid_t pid, const Image& image)
{
    const auto file = procfs::openMapped(pid, image.start, image.sizeBytes, image.path);
    const auto info = file.ok() ? sys::statFd(file.value().get()) : Result<struct stat>(file.status());
    if (!info.ok())
        return procfs::buildIdInMemory(pid, image.path);
    const std::string key = std::to_string(info.value().st_dev) + ":" + std::to_string(info.value().st_ino) + ":"
        + std::to_string(info.value().st_mtim.tv_sec) + "." + std::to_string(info.value().st_mtim.tv_nsec);
    const auto cached = _buildIds.find(key);
    if (cached != _buildIds.end())
        return cached->second;
    return _buildIds[key] = procfs::buildIdOf(file.value().get());
}

Ref<Object> SignatureStore::encode(pid_t pid, const Process& process)
{
    SignatureEncoder encoder(pid, process.name, process.executable, process.is64Bit);
    for (const Image& image : process.images)
        encoder.addImage(
            {image.start, image.sizeBytes, image.fileOffset, image.timeNs, image.exec, image.path, image.buildId});
    if (!process.perfMap.empty())
        encoder.set(signature::kPerfMap, Data::create(std::as_bytes(std::span(process.perfMap))));
    return encoder.take();
}

void SignatureStore::onMapping(const MappingEvent& event)
{
    MutexLock guard(_lock);
    const auto found = _processes.find(event.pid);
    if (found == _processes.end() || found->second.ended)
        return;
    Image image{event.start, event.sizeBytes, event.fileOffset, event.timeNs, false, event.path, event.buildId};
    (void)addImage(found->second, std::move(image)); // known already: nothing to do
}

void SignatureStore::onExec(uint64_t timeNs, pid_t pid, const std::string& name)
{
    MutexLock guard(_lock);
    const auto found = _processes.find(pid);
    if (found == _processes.end() || found->second.ended)
        return;
    Process& process = found->second;
    if (!process.images.empty() && !process.images.back().exec) {
        Image boundary;
        boundary.exec = true;
        boundary.timeNs = timeNs;
        process.images.push_back(std::move(boundary));
    }
    process.name = name;
    process.executable.clear();
    process.startTicks = 0; // name and executable are read again, if it lives long enough
    process.perfMap.clear();
    process.encoded = nullptr;
}

void SignatureStore::onFork(uint64_t, pid_t parent, pid_t child)
{
    MutexLock guard(_lock);
    const auto found = _processes.find(parent);
    if (parent == child || found == _processes.end() || _processes.count(child) || _processes.size() >= kMaxProcesses)
        return;
    Process copy = found->second; // the child starts with its parent's address space
    copy.encoded = nullptr;
    copy.startTicks = 0;
    copy.ended = false;
    copy.parent = parent;
    _processes.emplace(child, std::move(copy));
}

void SignatureStore::onExit(uint64_t, pid_t pid)
{
    MutexLock guard(_lock);
    const auto found = _processes.find(pid);
    if (found != _processes.end())
        found->second.ended = true;
}

void SignatureStore::onKernelAddresses(std::span<const uint64_t> addresses)
{
    MutexLock guard(_lock);
    for (const uint64_t address : addresses) {
        if (_kernelAddresses.size() < kMaxKernelAddresses)
            _kernelAddresses.insert(address);
    }
}

Ref<Object> SignatureStore::kernelSignature()
{
    MutexLock guard(_lock);
    if (_kernel && _kernelAddressesEncoded == _kernelAddresses.size())
        return _kernel;
    auto encoded = MutableDictionary::create();
    encoded->set(signature::kVersionKey, Number::withInt(signature::kVersion));
    encoded->set(signature::kPid, Number::withInt(0));
    encoded->set(signature::kName, String::create("kernel"));
    utsname names{};
    if (::uname(&names) == 0)
        encoded->set(signature::kKernelRelease, String::create(names.release));
    if (const auto notes = sys::readFile("/sys/kernel/notes", 1u << 20); notes.ok()) {
        const std::string id = procfs::buildIdInNotes(notes.value());
        if (!id.empty())
            encoded->set(signature::kKernelBuildId, String::create(id));
    }
    if (const auto image = vdsoImage())
        encoded->set(signature::kVdso, image);
    if (!_kernelAddresses.empty()) {
        auto symbols = MutableArray::create();
        for (const KernelSymbol& symbol : kernelSymbolsFor({_kernelAddresses.begin(), _kernelAddresses.end()})) {
            symbols->append(Number::withUint64(symbol.address));
            symbols->append(String::create(symbol.name));
        }
        encoded->set(signature::kKernelSymbols, symbols);
    }
    _kernelAddressesEncoded = _kernelAddresses.size();
    _kernel = encoded;
    return _kernel;
}

} // namespace vnt
