#include "services/tsec/ProcessScan.h"

#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include "platform/base/sys.h"
#include "services/common/ProcFs.h"

namespace vnt {
namespace {

// A process takes about a millisecond, a very large one some tens.
constexpr uint64_t kPatienceNs = 5'000'000'000;
constexpr uint32_t kKernelThread = 0x00200000; // PF_KTHREAD (include/linux/sched.h)

std::atomic<int> hanging{0}; // relaxed: a count for deciding, it guards nothing

using BuildIds = std::unordered_map<std::string, std::string>; // by device, inode and time

/// Without disturbing what stands at the path: O_PATH (open(2)) opens neither a device nor a pipe.
std::string buildIdOf(pid_t pid, const std::string& path, BuildIds& known)
{
    const auto fd = sys::openFile("/proc/" + std::to_string(pid) + "/root" + path, O_PATH);
    if (!fd.ok())
        return {};
    const auto info = sys::statFd(fd.value().get());
    if (!info.ok() || !S_ISREG(info.value().st_mode))
        return {};
    const std::string key = std::to_string(info.value().st_dev) + ":" + std::to_string(info.value().st_ino) + ":"
        + std::to_string(info.value().st_mtim.tv_sec) + "." + std::to_string(info.value().st_mtim.tv_nsec);
    const auto found = known.find(key);
    if (found != known.end())
        return found->second;
    return known[key] = procfs::buildIdOfFile("/proc/self/fd/" + std::to_string(fd.value().get()));
}

std::string executableOf(pid_t pid)
{
    char target[4096];
    const ssize_t length = ::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), target, sizeof target);
    return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

/// False for a process that has ended, and for the kernel's own.
bool scan(pid_t pid, BuildIds& buildIds, ScannedProcess& process)
{
    process.lookedNs = sys::monotonicNs();
    const auto stat = procfs::processStat(pid);
    if (!stat.ok() || stat.value().state == 'Z' || stat.value().state == 'X'
        || (stat.value().flags & kKernelThread) != 0)
        return false;
    process.pid = pid;
    process.parent = stat.value().parent;
    process.executable = executableOf(pid);
    const auto name = procfs::executableName(pid);
    process.name = name.ok() ? name.value() : stat.value().comm;
    const auto mappings = procfs::codeMappings(pid);
    if (!mappings.ok())
        return true;
    for (const procfs::CodeMapping& mapping : mappings.value()) {
        MappingEvent image;
        image.pid = pid;
        image.start = mapping.start;
        image.sizeBytes = mapping.sizeBytes;
        image.fileOffset = mapping.fileOffset;
        image.path = mapping.path;
        if (image.path.starts_with('/'))
            image.buildId = buildIdOf(pid, image.path, buildIds);
        process.images.push_back(std::move(image));
    }
    const auto after = procfs::processStat(pid);
    return after.ok() && after.value().startTicks == stat.value().startTicks; // else the pid went to another one
}

} // namespace

struct ProcessScan::Shared {
    std::shared_ptr<ProcessLog> log;
    uint64_t startedNs = 0;
    pid_t skip = 0;
    Result result; // the scan's thread's until it is done
    // Relaxed, but for `done`: each is looked at alone; what was found goes through the log's lock.
    std::atomic<uint64_t> progressNs{0};
    std::atomic<pid_t> current{0};
    std::atomic<bool> done{false}, givenUp{false}, counted{false};

    void run()
    {
        result.beganNs = sys::monotonicNs();
        const auto pids = procfs::runningPids();
        BuildIds buildIds;
        for (const pid_t pid : pids.ok() ? pids.value() : std::vector<pid_t>()) {
            current.store(pid, std::memory_order_relaxed);
            progressNs.store(sys::monotonicNs(), std::memory_order_relaxed);
            ScannedProcess process;
            const bool runs = pid == skip || scan(pid, buildIds, process);
            if (givenUp.load(std::memory_order_relaxed))
                return;
            if (runs)
                result.running.insert(pid);
            if (runs && pid != skip)
                log->onScanned(startedNs, std::move(process));
        }
        result.isWhole = pids.ok();
        result.doneNs = sys::monotonicNs();
    }
};

std::unique_ptr<ProcessScan> ProcessScan::start(std::shared_ptr<ProcessLog> log, uint64_t startedNs, pid_t skip)
{
    auto shared = std::make_shared<Shared>();
    shared->log = std::move(log);
    shared->startedNs = startedNs;
    shared->skip = skip;
    shared->progressNs = sys::monotonicNs();
    const sys::SignalBlock block;
    std::thread([shared] {
        try {
            shared->run();
        } catch (const std::bad_alloc&) { // the scan stays incomplete; events go on
        }
        if (shared->counted.load(std::memory_order_relaxed))
            hanging.fetch_sub(1, std::memory_order_relaxed);
        shared->done.store(true, std::memory_order_release);
    }).detach();
    return std::unique_ptr<ProcessScan>(new ProcessScan(std::move(shared)));
}

ProcessScan::~ProcessScan()
{
    if (state() == State::kHanging) {
        _shared->counted.store(true, std::memory_order_relaxed);
        hanging.fetch_add(1, std::memory_order_relaxed);
    }
    _shared->givenUp.store(true, std::memory_order_relaxed);
}

ProcessScan::State ProcessScan::state()
{
    if (_shared->done.load(std::memory_order_acquire))
        return State::kDone;
    const uint64_t since = _shared->progressNs.load(std::memory_order_relaxed);
    const uint64_t now = sys::monotonicNs();
    return now > since && now - since > kPatienceNs ? State::kHanging : State::kRunning;
}

ProcessScan::Result ProcessScan::take() { return std::move(_shared->result); }

pid_t ProcessScan::current() const { return _shared->current.load(std::memory_order_relaxed); }

int ProcessScan::hangingCount() { return hanging.load(std::memory_order_relaxed); }

} // namespace vnt
