#include "platform/mach/Namespace.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <vector>

#include "platform/base/sys.h"
#include "platform/mach/PortTable.h"

namespace vnt {
namespace {

// Processes of different protocols do not meet: the version is part of the path.
constexpr const char* kVersionDirectory = "v1";
constexpr size_t kMaxNameBytes = 64;
// Long enough for any starter that makes progress; the lock is held for the few milliseconds of a start.
constexpr std::chrono::seconds kLockPatience{10};

struct DirectoryRule {
    uid_t owner;
    mode_t mode; // of a new directory
    mode_t forbiddenModes; // bits that an existing one must not have
    bool create;
};

/// One directory of our own, its parents excluded: made when missing and allowed, then checked through a descriptor.
Status checkDirectory(const std::string& path, const DirectoryRule& rule)
{
    const bool made = rule.create && ::mkdir(path.c_str(), rule.mode) == 0;
    ASSIGN_OR_RETURN(const UniqueFd fd, sys::openFile(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (made && ::fchmod(fd.get(), rule.mode) != 0) // the umask had its say before
        return Status::fromErrno(errno, path);
    ASSIGN_OR_RETURN(const struct stat info, sys::statFd(fd.get()));
    if (info.st_uid != rule.owner)
        return Status(Code::kDenied, path + ": belongs to another user");
    if ((info.st_mode & rule.forbiddenModes) != 0)
        return Status(Code::kDenied, path + ": open to other users");
    return {};
}

Result<std::string> versionedDirectory(const std::string& base, const DirectoryRule& rule)
{
    const std::string path = base + "/" + kVersionDirectory;
    // Room for the separator, the longest suffix and the NUL in sockaddr_un.
    if (path.size() + 1 + kMaxNameBytes / 2 + 1 > sizeof(sockaddr_un::sun_path))
        return Status(Code::kTooLarge, path + ": too long for sockets");
    RETURN_IF_ERROR(checkDirectory(base, rule));
    RETURN_IF_ERROR(checkDirectory(path, rule));
    return path;
}

/// ELOOP and ENOTDIR of openFile are refusals here: something else stands in the directory's place.
Status asRefusal(const Status& status)
{
    if (status.errnoValue() == ELOOP || status.errnoValue() == ENOTDIR)
        return Status(Code::kDenied, status.message(), status.errnoValue());
    return status;
}

std::string overrideFor(const char* variable)
{
    return sys::isSecureExecution() ? std::string() : sys::environmentOr(variable, "");
}

std::string cacheDirectory()
{
    std::string home = sys::isSecureExecution() ? std::string() : sys::environmentOr("HOME", "");
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (home.empty() && ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        home = found->pw_dir;
    if (home.empty() || home[0] != '/')
        return {};
    (void)sys::makeDirectories(home + "/.cache/vantora", 0700); // the check of the directory inside tells
    return home + "/.cache/vantora/run";
}

Result<std::string> userDirectory()
{
    const DirectoryRule rule{::geteuid(), 0700, 077, true};
    if (const std::string given = overrideFor("VANTORA_BOOTSTRAP_DIR"); !given.empty())
        return versionedDirectory(given, rule);
    Status last(Code::kNotFound, "no directory for the user's services");
    const std::string runtime = overrideFor("XDG_RUNTIME_DIR");
    const std::string standard = "/run/user/" + std::to_string(::geteuid());
    for (const std::string& parent : {runtime, standard}) {
        // Only a parent of the user's own: another user's (left by su) is passed over.
        if (parent.empty() || parent[0] != '/' || !checkDirectory(parent, {::geteuid(), 0, 022, false}).ok())
            continue;
        auto result = versionedDirectory(parent + "/vantora", rule);
        if (result.ok())
            return result;
        last = result.status();
    }
    if (const std::string cache = cacheDirectory(); !cache.empty())
        return versionedDirectory(cache, rule);
    return last;
}

Result<std::string> systemDirectory()
{
    const std::string given = overrideFor("VANTORA_SYSTEM_BOOTSTRAP_DIR");
    return versionedDirectory(given.empty() ? "/run/vantora" : given, {0, 0755, 022, ::geteuid() == 0});
}

} // namespace

void useNamespace(Namespace choice)
{
    bootstrap_port = choice == Namespace::kUser ? PortTable::kBootstrapUser : PortTable::kBootstrapSystem;
}

Namespace currentNamespace()
{
    if (bootstrap_port == PortTable::kBootstrapUser)
        return Namespace::kUser;
    if (bootstrap_port == PortTable::kBootstrapSystem)
        return Namespace::kSystem;
    return ::geteuid() == 0 ? Namespace::kSystem : Namespace::kUser;
}

Result<std::string> namespaceDirectory(Namespace which)
{
    auto result = which == Namespace::kUser ? userDirectory() : systemDirectory();
    if (!result.ok())
        return asRefusal(result.status());
    return result;
}

bool isServiceName(const std::string& name)
{
    constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
    constexpr std::string_view kLockSuffix = ".lock";
    return !name.empty() && name.size() <= kMaxNameBytes && name[0] != '.'
        && name.find_first_not_of(kLetters) == std::string::npos
        && (name.size() < kLockSuffix.size()
            || name.compare(name.size() - kLockSuffix.size(), kLockSuffix.size(), kLockSuffix) != 0);
}

Result<NameLock> NameLock::take(const std::string& directory, const std::string& name, Wait wait)
{
    ASSIGN_OR_RETURN(UniqueFd fd, sys::openFile(directory + "/" + name + ".lock", O_RDWR | O_CREAT | O_NOFOLLOW, 0600));
    const auto deadline = std::chrono::steady_clock::now() + kLockPatience;
    for (;;) {
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0)
            return NameLock(std::move(fd));
        if (errno != EWOULDBLOCK && errno != EINTR)
            return Status::fromErrno(errno, "lock of " + name);
        if (wait == Wait::kNo || std::chrono::steady_clock::now() >= deadline)
            return Status(Code::kTimedOut, name + ": another process holds its lock");
        // flock(2) has no time limit of its own, and a stopped holder must not stop us: ask again every millisecond.
        const timespec pause{0, 1'000'000};
        (void)::nanosleep(&pause, nullptr);
    }
}

} // namespace vnt
