#include "platform/mach/ServiceStart.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/base/Mapping.h"
#include "platform/base/sharedMemoryChild.h"
#include "platform/base/sys.h"
#include "platform/mach/PacketSocket.h"

namespace vnt {
namespace {

constexpr size_t kChildStackBytes = 64 * 1024;
constexpr int kServiceListener = 3;

/// Variables that change how a program loads or runs, or that speak to somebody else.
constexpr std::string_view kDroppedVariables[] = {
    "LD_", "LISTEN_", "NOTIFY_SOCKET=", "GLIBC_TUNABLES=", "MALLOC_", "GCONV_PATH=", "LOCPATH="};

struct StartPlan {
    const char* program;
    char* const* arguments;
    char* const* environment;
    int listener;
    int null;
    void* serviceStack; // top of the second child's stack
    int error; // out: errno of the step that failed
};

VNT_IN_CHILD long duplicateAbove(int fd) { return ::syscall(SYS_fcntl, fd, F_DUPFD, kServiceListener + 1); }

/// The service before execve(2).
VNT_IN_CHILD int becomeService(void* argument)
{
    auto* plan = static_cast<StartPlan*>(argument);
    (void)::syscall(SYS_setsid);
    for (int signal = 1; signal <= child::kLastSignal; ++signal)
        (void)child::setDefaultAction(signal); // those that cannot be set are at their default
    // First to places above all that is written here: they may stand where the standard files go.
    const long listener = duplicateAbove(plan->listener);
    const long null = duplicateAbove(plan->null);
    if (listener >= 0 && null >= 0 && ::syscall(SYS_chdir, "/") == 0 && ::syscall(SYS_dup2, null, 0) >= 0
        && ::syscall(SYS_dup2, null, 1) >= 0 && ::syscall(SYS_dup2, null, 2) >= 0
        && ::syscall(SYS_dup2, listener, kServiceListener) >= 0) {
        if (::syscall(SYS_close_range, kServiceListener + 1, ~0U, 0) != 0) {
            for (int fd = kServiceListener + 1; fd < 65536; ++fd) // a kernel before 5.9
                (void)::syscall(SYS_close, fd);
        }
        (void)::syscall(SYS_umask, 077);
        static constexpr uint64_t kNoSignals = 0;
        (void)::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &kNoSignals, nullptr, child::kSignalSetBytes);
        (void)::syscall(SYS_execve, plan->program, plan->arguments, plan->environment);
    }
    plan->error = errno;
    (void)::syscall(SYS_exit_group, 127);
    return 127;
}

/// The child between: its end makes the service nobody's child here.
VNT_IN_CHILD int startAndLeave(void* argument)
{
    auto* plan = static_cast<StartPlan*>(argument);
    if (vntClone(becomeService, plan->serviceStack, CLONE_VM | CLONE_VFORK, plan) < 0)
        plan->error = errno;
    (void)::syscall(SYS_exit_group, 0);
    return 0;
}

std::vector<char*> serviceEnvironment()
{
    std::vector<char*> kept;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string_view text = *entry;
        bool dropped = false;
        for (const std::string_view prefix : kDroppedVariables)
            dropped = dropped || text.substr(0, prefix.size()) == prefix;
        if (!dropped)
            kept.push_back(*entry);
    }
    kept.push_back(nullptr);
    return kept;
}

Status adoptListener(int raw, UniqueFd& listener)
{
    int accepting = 0;
    socklen_t size = sizeof accepting;
    if (raw < kServiceListener || ::getsockopt(raw, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &size) != 0 || !accepting)
        return Status(Code::kInvalid, "descriptor " + std::to_string(raw) + " is not a listening socket");
    listener = UniqueFd(raw);
    if (::fcntl(raw, F_SETFD, FD_CLOEXEC) != 0)
        return Status::fromErrno(errno, "F_SETFD");
    return {};
}

} // namespace

Status startService(const std::string& program, Namespace which, int listener)
{
    std::string name = program;
    std::string nameSpace = which == Namespace::kSystem ? "--namespace=system" : "--namespace=user";
    std::string socket = "--socket=" + std::to_string(kServiceListener);
    char* const arguments[] = {name.data(), nameSpace.data(), socket.data(), nullptr};
    const std::vector<char*> environment = serviceEnvironment();
    ASSIGN_OR_RETURN(const UniqueFd null, sys::openFile("/dev/null", O_RDWR));
    ASSIGN_OR_RETURN(
        const Mapping stacks,
        Mapping::create(2 * kChildStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0));
    auto* const top = static_cast<char*>(stacks.address()) + stacks.size();
    StartPlan plan{program.c_str(), arguments, environment.data(), listener, null.get(), top - kChildStackBytes, 0};

    // Blocked signals: no handler of the host may run in a child that shares its memory. No exit signal: the host's
    // SIGCHLD handler and its wait calls never learn of the child between.
    const sys::SignalBlock block;
    const pid_t between = vntClone(startAndLeave, top, CLONE_VM | CLONE_VFORK, &plan);
    if (between < 0)
        return Status::fromErrno(errno, "clone");
    while (::waitpid(between, nullptr, __WALL) < 0 && errno == EINTR) { }
    if (plan.error != 0)
        return Status::fromErrno(plan.error, program);
    return {};
}

Result<ServiceArguments> ServiceArguments::parse(int argc, char** argv)
{
    ServiceArguments result;
    result.which = currentNamespace();
    int socket = -1;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--namespace=user")
            result.which = Namespace::kUser;
        else if (argument == "--namespace=system")
            result.which = Namespace::kSystem;
        else if (argument.rfind("--socket=", 0) == 0 && argument.size() > 9 && argument.size() < 15
                 && argument.find_first_not_of("0123456789", 9) == std::string::npos)
            socket = std::stoi(argument.substr(9));
        else
            return Status(Code::kInvalid, argument + ": unknown argument");
    }
    const std::string pid = sys::environmentOr("LISTEN_PID", "");
    if (socket < 0 && pid == std::to_string(::getpid()) && sys::environmentOr("LISTEN_FDS", "") == "1") {
        socket = kServiceListener; // SD_LISTEN_FDS_START of sd_listen_fds(3)
        result.ownsName = false;
    }
    for (const char* variable : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
        (void)::unsetenv(variable);
    if (socket >= 0)
        RETURN_IF_ERROR(adoptListener(socket, result.listener));
    useNamespace(result.which);
    return result;
}

} // namespace vnt
