#include "collectors/common/perf.h"

#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "platform/base/sys.h"

namespace vnt::perf {
namespace {

constexpr ino_t kInitialPidNamespace = 0xEFFFFFFCU; // PROC_PID_INIT_INO, linux/proc_ns.h
constexpr size_t kMaxProcessors = 8192; // NR_CPUS of the largest distribution kernels

Status control(int fd, unsigned long request, const char* what)
{
    if (::ioctl(fd, request, 0) != 0)
        return Status::fromErrno(errno, what);
    return {};
}

} // namespace

Result<UniqueFd> openEvent(const perf_event_attr& attributes, pid_t pid, int cpu, int outputFd)
{
    perf_event_attr copy = attributes; // the kernel writes the size it knows into it on E2BIG
    unsigned long flags = PERF_FLAG_FD_CLOEXEC;
    if (outputFd >= 0)
        flags |= PERF_FLAG_FD_OUTPUT | PERF_FLAG_FD_NO_GROUP;
    const long fd = ::syscall(SYS_perf_event_open, &copy, pid, cpu, outputFd, flags);
    if (fd < 0)
        return Status::fromErrno(errno, "perf_event_open");
    return UniqueFd(static_cast<int>(fd));
}

Status enable(int fd) { return control(fd, PERF_EVENT_IOC_ENABLE, "PERF_EVENT_IOC_ENABLE"); }
Status disable(int fd) { return control(fd, PERF_EVENT_IOC_DISABLE, "PERF_EVENT_IOC_DISABLE"); }

Result<uint64_t> eventId(int fd)
{
    uint64_t id = 0;
    if (::ioctl(fd, PERF_EVENT_IOC_ID, &id) != 0)
        return Status::fromErrno(errno, "PERF_EVENT_IOC_ID");
    return id;
}

Status setProgram(int fd, int program)
{
    if (::ioctl(fd, PERF_EVENT_IOC_SET_BPF, program) != 0)
        return Status::fromErrno(errno, "PERF_EVENT_IOC_SET_BPF");
    return {};
}

Result<Mapping> mapRing(int fd, size_t dataBytes)
{
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return Mapping::create(page + dataBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
}

bool seesKernelProcessIds()
{
    const auto space = sys::statFile("/proc/self/ns/pid");
    return space.ok() && space.value().st_ino == kInitialPidNamespace;
}

Result<std::vector<int>> parseProcessorList(const std::string& text)
{
    const Status malformed(Code::kInvalid, "processor list \"" + text + "\" is malformed");
    std::vector<int> processors;
    const char* at = text.data();
    const char* const end = at + text.find_last_not_of(" \n") + 1;
    while (at < end) {
        unsigned first = 0;
        auto parsed = std::from_chars(at, end, first);
        unsigned last = first;
        if (parsed.ec == std::errc() && parsed.ptr < end && *parsed.ptr == '-')
            parsed = std::from_chars(parsed.ptr + 1, end, last);
        if (parsed.ec != std::errc() || last < first || last >= kMaxProcessors)
            return malformed;
        for (unsigned cpu = first; cpu <= last; ++cpu)
            processors.push_back(static_cast<int>(cpu));
        at = parsed.ptr;
        if (at < end && (*at++ != ',' || at == end))
            return malformed;
    }
    if (processors.empty() || processors.size() > kMaxProcessors)
        return malformed;
    return processors;
}

Result<std::vector<int>> onlineProcessors()
{
    ASSIGN_OR_RETURN(const std::string text, sys::readFile("/sys/devices/system/cpu/online", 65536));
    return parseProcessorList(text);
}

int64_t kernelSetting(const std::string& name, int64_t fallback)
{
    auto text = sys::readFile("/proc/sys/kernel/" + name, 64);
    int64_t value = 0;
    if (!text.ok()
        || std::from_chars(text.value().data(), text.value().data() + text.value().size(), value).ec != std::errc())
        return fallback;
    return value;
}

namespace {

std::string advice(int error, Purpose purpose, int64_t paranoid)
{
    if (error == ENOSYS || error == ENOENT || error == EOPNOTSUPP)
        return "this kernel has no perf events for it";
    if (error == ESRCH)
        return "the process has ended";
    if (error == EMFILE)
        return "too many open files; raise the limit with: ulimit -n " + std::to_string(65536);
    if (error != EACCES && error != EPERM)
        return {};
    if (purpose == Purpose::kRing)
        return "the limit of locked memory is used up; run: sudo sysctl kernel.perf_event_mlock_kb=4096";
    const int64_t needed = purpose == Purpose::kWholeMachine ? 0 : purpose == Purpose::kKernelStacks ? 1 : 2;
    if (paranoid > needed)
        return "kernel.perf_event_paranoid is " + std::to_string(paranoid)
            + "; run: sudo sysctl kernel.perf_event_paranoid=" + std::to_string(needed);
    if (error == EPERM)
        return "perf events are blocked here, most likely by a container's system call filter; "
               "start the container with --cap-add PERFMON or --security-opt seccomp=unconfined";
    return "the process belongs to another user; record through the system's server";
}

} // namespace

Status explain(const Status& refusal, Purpose purpose, int64_t paranoid)
{
    const std::string text = advice(refusal.errnoValue(), purpose, paranoid);
    if (text.empty())
        return refusal;
    return Status(refusal.code(), refusal.message() + " (" + text + ")", refusal.errnoValue());
}

} // namespace vnt::perf
