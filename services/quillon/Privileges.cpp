#include "services/quillon/Privileges.h"

#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

// Of Linux 5.8; older headers lack them.
#ifndef CAP_PERFMON
#define CAP_PERFMON 38
#endif
#ifndef CAP_BPF
#define CAP_BPF 39
#endif

namespace vnt {
namespace {

/// capabilities(7), each with what needs it.
constexpr int kKept[] = {
    CAP_SYS_PTRACE, // /proc/PID of others, their memory, holding them still
    CAP_KILL, // ending and suspending them
    CAP_PERFMON, // perf events on them, on processors and on the kernel
    CAP_BPF, // filters and rings in the kernel
    CAP_SYSLOG, // the kernel's symbols
    CAP_DAC_READ_SEARCH, // their executables, and the kernel's descriptions of its events
    CAP_NET_ADMIN, // news of every process's beginning and end
    CAP_IPC_LOCK, // rings beyond the limit of locked memory
};

/// capget(2) and capset(2) of version 3: two words of 32 capabilities.
struct Capabilities {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct words[2]{};
};

constexpr uint64_t kKeptMask = [] {
    uint64_t mask = 0;
    for (const int capability : kKept)
        mask |= uint64_t{1} << capability;
    return mask;
}();

Status becomeUser(uid_t client)
{
    if (client == 0)
        return {};
    gid_t group = static_cast<gid_t>(client);
    const passwd* entry = ::getpwuid(client);
    if (entry)
        group = entry->pw_gid;
    const int grouped = entry ? ::initgroups(entry->pw_name, group) : ::setgroups(0, nullptr);
    if (grouped != 0 || ::setresgid(group, group, group) != 0)
        return Status::fromErrno(errno, "taking on the groups of uid " + std::to_string(client));
    // Across the change of the uid the permitted capabilities stay.
    if (::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || ::setresuid(client, client, client) != 0)
        return Status::fromErrno(errno, "becoming uid " + std::to_string(client));
    return {};
}

/// What is not in the bounding set can never come back, by no program that is executed.
Status boundCapabilities()
{
    for (int capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability) {
        const bool kept = capability < 64 && ((kKeptMask >> capability) & 1);
        if (!kept && ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EINVAL)
            return Status::fromErrno(errno, "giving up capability " + std::to_string(capability));
    }
    return {};
}

Status limitCapabilities()
{
    Capabilities capabilities;
    if (::syscall(SYS_capget, &capabilities.header, capabilities.words) != 0)
        return Status::fromErrno(errno, "capget");
    for (int word = 0; word < 2; ++word) {
        const auto kept = static_cast<uint32_t>(kKeptMask >> (32 * word));
        capabilities.words[word].permitted &= kept; // what a container never gave is no error
        capabilities.words[word].effective = capabilities.words[word].permitted;
        capabilities.words[word].inheritable = 0;
    }
    if (::syscall(SYS_capset, &capabilities.header, capabilities.words) != 0)
        return Status::fromErrno(errno, "capset");
    return {};
}

} // namespace

Status keepOnlyWhatRecordingTakes(uid_t client)
{
    if (::geteuid() != 0)
        return {};
    RETURN_IF_ERROR(boundCapabilities());
    RETURN_IF_ERROR(becomeUser(client));
    RETURN_IF_ERROR(limitCapabilities());
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return Status::fromErrno(errno, "PR_SET_NO_NEW_PRIVS");
    // What it sees of other users is nobody else's business, also not of programs of the user it now is (prctl(2)).
    if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0)
        return Status::fromErrno(errno, "PR_SET_DUMPABLE");
    return {};
}

} // namespace vnt
