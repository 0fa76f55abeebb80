#include "platform/process/SuspendedStart.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/Mapping.h"
#include "platform/base/sharedMemoryChild.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kChildStackBytes = size_t{64} << 10; // the child only makes system calls
constexpr int kExecFailedStatus = 127;
/// A page fault on a slow disk may delay the stop; what takes longer is not going to stop.
constexpr uint64_t kStopDeadlineNs = 30'000'000'000;
constexpr unsigned kPtraceSetSigmask = 0x420b; // PTRACE_SETSIGMASK, ptrace(2); absent from older headers

enum class Method {
    kPlain, // runs at once
    kTraced, // stopped by ptrace(2) at the end of the exec
    kSelfSignal, // where tracing is refused, by a container's filter or kernel.yama.ptrace_scope 3: see armStopAtExec()
};

/// What the child is told and what it tells. It shares our memory until its exec, and we do not run meanwhile.
struct ChildTask {
    const char* path;
    char* const* arguments;
    char* const* environment;
    bool setsProcessGroup;
    Method method;
    int pipeFd; // kSelfSignal: read end of a pipe without a write end
    const char* pipePath; // and its name in /proc
    volatile bool isTracingRefused = false;
    volatile int error = 0;
};

/// Makes the kernel send this process a SIGSTOP from within its own exec: the exec closes the only write end of the
/// pipe, and the signal of the read end, which the parent holds open, is SIGSTOP for us (F_SETSIG, fcntl(2)). It is
/// delivered on the way to the first instruction. Returns false with errno.
VNT_IN_CHILD bool armStopAtExec(const ChildTask& task)
{
    const long self = ::syscall(SYS_getpid);
    return ::syscall(SYS_openat, AT_FDCWD, task.pipePath, O_WRONLY | O_CLOEXEC, 0) >= 0
        && ::syscall(SYS_fcntl, task.pipeFd, F_SETSIG, SIGSTOP) == 0
        && ::syscall(SYS_fcntl, task.pipeFd, F_SETOWN, self) == 0
        && ::syscall(SYS_fcntl, task.pipeFd, F_SETFL, O_ASYNC) == 0;
}

VNT_IN_CHILD bool prepareChild(ChildTask& task)
{
    if (task.setsProcessGroup && ::syscall(SYS_setpgid, 0, 0) != 0)
        return false;
    uint64_t mask = 0;
    if (task.method == Method::kTraced) {
        task.isTracingRefused = ::syscall(SYS_ptrace, PTRACE_TRACEME, 0, nullptr, nullptr) != 0;
        if (task.isTracingRefused)
            return false;
        // Until the exec everything but its SIGTRAP stays blocked: a signal delivered before would stop the child for
        // its tracer, and that is us, waiting for the exec. The parent empties the mask in the exec stop.
        mask = ~(uint64_t{1} << (SIGTRAP - 1));
    } else {
        // The mask is about to be emptied: none of the host's handlers may run in its memory.
        child::dropSignalHandlers();
        if (task.method == Method::kSelfSignal && !armStopAtExec(task))
            return false;
    }
    return ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, nullptr, child::kSignalSetBytes) == 0;
}

/// Runs in the child, between clone and exec.
VNT_IN_CHILD int runChild(void* argument)
{
    auto& task = *static_cast<ChildTask*>(argument);
    if (prepareChild(task))
        (void)::syscall(SYS_execve, task.path, task.arguments, task.environment);
    task.error = errno;
    (void)::syscall(SYS_exit_group, kExecFailedStatus);
    return kExecFailedStatus;
}

/// State letter of proc(5), "/proc/PID/stat"; 0 when the process is gone.
char stateOf(pid_t pid)
{
    const auto text = sys::readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
    if (!text.ok())
        return 0;
    const size_t parenthesis = text.value().rfind(')'); // the name may hold anything
    return parenthesis == std::string::npos || parenthesis + 2 >= text.value().size() ? '\0'
                                                                                      : text.value()[parenthesis + 2];
}

/// Polls: a wait status may be taken by the host's own waitpid(-1), the state in /proc may not.
Status waitForState(pid_t pid, char wanted)
{
    const uint64_t deadline = sys::monotonicNs() + kStopDeadlineNs;
    for (long pauseNs = 20'000;; pauseNs = std::min(pauseNs * 2, 5'000'000L)) {
        const char state = stateOf(pid);
        if (state == wanted)
            return {};
        if (state == 0 || state == 'Z' || state == 'X')
            return Status(Code::kPeerGone, "process " + std::to_string(pid) + " ended before its stop");
        if (sys::monotonicNs() > deadline)
            return Status(Code::kTimedOut, "process " + std::to_string(pid) + " does not stop");
        const timespec pause{0, pauseNs};
        ::nanosleep(&pause, nullptr);
    }
}

/// From the exec stop into an ordinary stop that SIGCONT ends. SIGSTOP as the argument of PTRACE_DETACH would be
/// dropped in some kinds of stop; sent before a detach without signal it never is.
Status stopTraced(pid_t pid, int pidFd)
{
    RETURN_IF_ERROR(waitForState(pid, 't'));
    RETURN_IF_ERROR(sys::signalPidFd(pidFd, SIGSTOP));
    uint64_t emptyMask = 0;
    static_assert(sizeof emptyMask == child::kSignalSetBytes);
    const auto setSigmask = static_cast<__ptrace_request>(kPtraceSetSigmask);
    if (::ptrace(setSigmask, pid, child::kSignalSetBytes, &emptyMask) != 0)
        return Status::fromErrno(errno, "PTRACE_SETSIGMASK");
    if (::ptrace(PTRACE_DETACH, pid, nullptr, nullptr) != 0)
        return Status::fromErrno(errno, "PTRACE_DETACH");
    return waitForState(pid, 'T');
}

void reap(int pidFd)
{
    siginfo_t info{};
    // The host may have taken it already: ECHILD is as good. The type is named by number, P_PIDFD of waitid(2).
    constexpr auto kPidFdType = static_cast<idtype_t>(3);
    while (::waitid(kPidFdType, static_cast<id_t>(pidFd), &info, WEXITED | __WALL) != 0 && errno == EINTR) { }
}

Status afterStart(const ChildTask& task, pid_t pid, int pidFd)
{
    if (task.error != 0)
        return Status::fromErrno(task.error, task.path);
    if (task.method == Method::kTraced)
        return stopTraced(pid, pidFd);
    return task.method == Method::kSelfSignal ? waitForState(pid, 'T') : Status();
}

/// One attempt by one method, with every signal blocked.
Result<pid_t> start(ChildTask& task)
{
    ASSIGN_OR_RETURN(
        const Mapping stack,
        Mapping::create(kChildStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0));
    int rawPidFd = -1;
    // CLONE_VFORK: returns when the child has left our memory, by exec or exit. Copies no page tables.
    const int pid = vntClone(runChild, static_cast<char*>(stack.address()) + stack.size(),
                             CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &task, &rawPidFd);
    if (pid < 0)
        return Status::fromErrno(errno, "clone");
    const UniqueFd pidFd(rawPidFd);
    const Status status = afterStart(task, pid, pidFd.get());
    if (status.ok())
        return pid;
    (void)sys::signalPidFd(pidFd.get(), SIGKILL); // gone already is fine
    reap(pidFd.get());
    return status;
}

Result<pid_t> startSelfSignalled(ChildTask& task)
{
    ASSIGN_OR_RETURN(auto pipe, sys::makePipe());
    pipe.second.reset();
    const std::string path = "/proc/self/fd/" + std::to_string(pipe.first.get());
    task.method = Method::kSelfSignal;
    task.pipeFd = pipe.first.get();
    task.pipePath = path.c_str();
    task.error = 0;
    return start(task);
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str())); // execve(2) does not write to them
    pointers.push_back(nullptr);
    return pointers;
}

bool hasZeroByte(const std::string& text) { return text.find('\0') != std::string::npos; }

} // namespace

Result<pid_t> spawnProcess(const SpawnRequest& request)
{
    if (hasZeroByte(request.path) || std::any_of(request.arguments.begin(), request.arguments.end(), hasZeroByte)
        || std::any_of(request.environment.begin(), request.environment.end(), hasZeroByte))
        return Status::fromErrno(EINVAL, "zero byte in the path, an argument or the environment");
    const std::vector<char*> arguments = pointersTo(request.arguments);
    const std::vector<char*> environment = pointersTo(request.environment);
    ChildTask task{
        .path = request.path.c_str(),
        .arguments = arguments.data(),
        .environment = environment.data(),
        .setsProcessGroup = (request.flags & kSpawnSetProcessGroup) != 0,
        .method = (request.flags & kSpawnStartSuspended) != 0 ? Method::kTraced : Method::kPlain,
        .pipeFd = -1,
        .pipePath = nullptr,
    };
    const sys::SignalBlock block;
    auto started = start(task);
    return task.isTracingRefused ? startSelfSignalled(task) : std::move(started);
}

} // namespace vnt
