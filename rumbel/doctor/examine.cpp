#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "collectors/census/ProcessEvents.h"
#include "collectors/common/TraceFs.h"
#include "collectors/common/perf.h"
#include "platform/base/sys.h"
#include "rumbel/doctor/Doctor.h"

namespace vnt {
namespace {

constexpr size_t kRingBytes = size_t{64} << 10; // one ring of the smallest useful size
constexpr uint64_t kSamplePeriodNs = 1'000'000;

enum class Mode { kUser, kKernel };

perf_event_attr clockEvent(Mode mode)
{
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_SOFTWARE;
    attributes.config = PERF_COUNT_SW_CPU_CLOCK;
    attributes.sample_period = kSamplePeriodNs;
    attributes.sample_type = PERF_SAMPLE_IP;
    attributes.disabled = 1;
    attributes.exclude_kernel = mode == Mode::kUser;
    attributes.exclude_hv = 1;
    return attributes;
}

Finding tried(const char* instrument, const char* what, const Status& status)
{
    return {instrument, what, status.ok(), status.ok() ? "" : status.message()};
}

/// Opens the event and, where that went well, its ring.
Status tryEvent(const perf_event_attr& attributes, pid_t pid, int cpu, perf::Purpose purpose)
{
    const int64_t paranoid = perf::kernelSetting("perf_event_paranoid", 2);
    const auto event = perf::openEvent(attributes, pid, cpu);
    if (!event.ok())
        return perf::explain(event.status(), purpose, paranoid);
    const auto ring = perf::mapRing(event.value().get(), kRingBytes);
    return ring.ok() ? Status() : perf::explain(ring.status(), perf::Purpose::kRing, paranoid);
}

Status tryTracing()
{
    ASSIGN_OR_RETURN(const TraceFs files, TraceFs::open());
    ASSIGN_OR_RETURN(const std::string id, files.read("events/sched/sched_switch/id"));
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_TRACEPOINT;
    attributes.config = std::strtoull(id.c_str(), nullptr, 10);
    attributes.sample_period = 1;
    attributes.sample_type = PERF_SAMPLE_RAW;
    attributes.disabled = 1;
    return tryEvent(attributes, /*pid=*/-1, /*cpu=*/0, perf::Purpose::kWholeMachine);
}

/// What the journal of a launched program is written to.
Status tryJournalMemory()
{
    const UniqueFd memory(::memfd_create("vantora-doctor", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memory.valid() || ::fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0)
        return Status(Code::kUnsupported, "the kernel refuses sealed memory (memfd_create)");
    return {};
}

/// Holding a process still and reading its memory, tried on a child.
Status tryHolding()
{
    const pid_t child = ::fork();
    if (child < 0)
        return Status::fromErrno(errno, "fork");
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    Status status;
    if (::ptrace(PTRACE_SEIZE, child, nullptr, nullptr) != 0)
        status =
            Status(Code::kDenied,
                   "tracing is forbidden here (a container's filter, or kernel.yama.ptrace_scope; run: sudo sysctl "
                   "kernel.yama.ptrace_scope=1)");
    ::kill(child, SIGKILL);
    (void)::waitpid(child, nullptr, 0);
    return status;
}

Status tryJoining()
{
    RETURN_IF_ERROR(tryHolding());
    const auto scope = sys::readFile("/proc/sys/kernel/yama/ptrace_scope", 16); // absent: as 0
    if (scope.ok() && scope.value()[0] != '0' && ::geteuid() != 0)
        return Status(Code::kDenied,
                      "only programs that one has started may be traced; run: sudo sysctl "
                      "kernel.yama.ptrace_scope=0");
    return {};
}

Status tryOtherProcesses()
{
    return sys::openFile("/proc/1/io", O_RDONLY).ok()
        ? Status()
        : Status(Code::kDenied, "the kernel shows it to their owners and to root only");
}

} // namespace

std::vector<Finding> examineMachine()
{
    const auto user = clockEvent(Mode::kUser);
    const auto kernel = clockEvent(Mode::kKernel);
    return {
        tried("stacksampler", "own processes", tryEvent(user, ::getpid(), -1, perf::Purpose::kOwnProcess)),
        tried("stacksampler", "kernel stacks of own processes",
              tryEvent(kernel, ::getpid(), -1, perf::Purpose::kKernelStacks)),
        tried("stacksampler", "all processes", tryEvent(kernel, -1, 0, perf::Purpose::kWholeMachine)),
        tried("kerneltracer", "events of the kernel", tryTracing()),
        tried("heaprecorder", "programs that it launches", tryJournalMemory()),
        tried("heaprecorder", "running processes", tryJoining()),
        tried("orphanfinder", "what the heap recorder records", tryHolding()),
        tried("processcensus", "all processes", sys::openFile("/proc/self/stat", O_RDONLY).status()),
        tried("processcensus", "processes between two sweeps", ProcessEvents::open().status()),
        tried("processcensus", "descriptors and I/O of others", tryOtherProcesses()),
    };
}

} // namespace vnt
