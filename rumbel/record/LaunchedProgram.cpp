#include "rumbel/record/LaunchedProgram.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vnt::rumbel {
namespace {

std::atomic<pid_t> programPid{0};
std::atomic<pid_t> terminalOwner{0}; // the foreground group before the program got the terminal

bool isExecutableFile(const std::string& path)
{
    struct stat info { };
    if (::stat(path.c_str(), &info) != 0)
        return false;
    if (!S_ISREG(info.st_mode) || ::access(path.c_str(), X_OK) != 0) {
        errno = EACCES;
        return false;
    }
    return true;
}

/// A background group that sets the foreground group is stopped by SIGTTOU unless it blocks it (tcsetpgrp(3)).
void giveTerminalTo(pid_t group)
{
    sigset_t ttou;
    sigset_t saved;
    ::sigemptyset(&ttou);
    ::sigaddset(&ttou, SIGTTOU);
    ::pthread_sigmask(SIG_BLOCK, &ttou, &saved);
    (void)::tcsetpgrp(STDIN_FILENO, group); // the terminal may be gone
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

int describeEnd(const siginfo_t& info)
{
    if (info.si_code == CLD_EXITED) {
        if (info.si_status != 0)
            std::fprintf(stderr, "rumbel: the program ended with status %d\n", info.si_status);
        return info.si_status;
    }
    std::fprintf(stderr, "rumbel: the program was ended by signal %d (%s)\n", info.si_status,
                 ::strsignal(info.si_status));
    return 128 + info.si_status; // as shells report it
}

} // namespace

std::string findProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos) {
        struct stat info { };
        if (::stat(name.c_str(), &info) != 0)
            return {};
        return S_ISDIR(info.st_mode) || isExecutableFile(name) ? name : std::string(); // a directory may be a bundle
    }
    const char* path = std::getenv("PATH");
    const std::string directories = path ? path : "/usr/local/bin:/usr/bin:/bin";
    int reason = ENOENT;
    for (size_t start = 0; start <= directories.size();) {
        const size_t end = std::min(directories.find(':', start), directories.size());
        const std::string directory = end > start ? directories.substr(start, end - start) : ".";
        start = end + 1;
        if (isExecutableFile(directory + "/" + name))
            return directory + "/" + name;
        if (errno == EACCES)
            reason = EACCES;
    }
    errno = reason;
    return {};
}

namespace launched {

void adopt(pid_t pid)
{
    programPid.store(pid);
    if (::isatty(STDIN_FILENO) && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp()) {
        terminalOwner.store(::getpgrp());
        giveTerminalTo(pid); // it leads a group of its own
        ::kill(-pid, SIGCONT); // it may have read the terminal before it had it, and been stopped for that
    }
}

void killNow()
{
    const pid_t pid = programPid.exchange(0);
    if (pid <= 0)
        return;
    ::kill(pid, SIGKILL); // ours and not reaped yet: the pid cannot mean another process
    (void)TEMP_FAILURE_RETRY(::waitpid(pid, nullptr, 0));
    if (const pid_t owner = terminalOwner.exchange(0))
        giveTerminalTo(owner);
}

void interrupt()
{
    if (const pid_t pid = programPid.load(); pid > 0)
        ::kill(-pid, SIGINT);
}

int finish()
{
    const pid_t pid = programPid.exchange(0);
    if (const pid_t owner = terminalOwner.exchange(0))
        giveTerminalTo(owner);
    if (pid <= 0)
        return -1;
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG) != 0 || info.si_pid != pid)
        return -1;
    return describeEnd(info);
}

} // namespace launched
} // namespace vnt::rumbel
