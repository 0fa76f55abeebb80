#include "platform/mach/JobFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>

#include "platform/base/sys.h"
#include "platform/mach/NameService.h"

namespace vnt {
namespace {

constexpr const char* kJobDirectory = "/.jobs"; // no service name begins with a dot
constexpr size_t kMaxProgramPathBytes = 1024;
constexpr size_t kMaxJobs = 256; // far more than anybody has; the directory is in memory
constexpr mode_t kWritableByOthers = 022;

Status checkOwner(const std::string& path, const struct stat& info)
{
    if (info.st_uid != 0)
        return Status(Code::kDenied, path + ": does not belong to root");
    if ((info.st_mode & kWritableByOthers) != 0)
        return Status(Code::kDenied, path + ": others than root may write to it");
    return {};
}

/// One step down from `parent`, without following a symbolic link and without touching what it finds.
Result<UniqueFd> openStep(int parent, const std::string& name, const std::string& path, struct stat& info)
{
    // O_PATH (open(2)): nothing is opened for reading, so neither a device nor a pipe is disturbed.
    UniqueFd fd(::openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        return Status::fromErrno(errno, path);
    ASSIGN_OR_RETURN(info, sys::statFd(fd.get()));
    return fd;
}

Result<std::string> jobDirectory()
{
    ASSIGN_OR_RETURN(const std::string base, namespaceDirectory(Namespace::kSystem));
    return base + kJobDirectory;
}

Status checkJobDirectory(const std::string& directory)
{
    ASSIGN_OR_RETURN(const struct stat info, sys::statLink(directory));
    if (!S_ISDIR(info.st_mode))
        return Status(Code::kDenied, directory + ": not a directory");
    return checkOwner(directory, info);
}

} // namespace

Status checkTrustedProgram(const std::string& path)
{
    if (path.empty() || path[0] != '/' || path.size() > kMaxProgramPathBytes
        || path.find_first_of(std::string_view("\0\n", 2)) != std::string::npos)
        return Status(Code::kInvalid, "the program must be given by its absolute path");
    struct stat info { };
    ASSIGN_OR_RETURN(UniqueFd step, sys::openFile("/", O_PATH | O_DIRECTORY));
    ASSIGN_OR_RETURN(info, sys::statFd(step.get()));
    RETURN_IF_ERROR(checkOwner("/", info));
    for (size_t start = 1; start <= path.size();) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, end - start);
        const std::string shown = path.substr(0, end);
        if (part.empty() || part == "." || part == "..")
            return Status(Code::kInvalid, path + ": not a plain path");
        if (!S_ISDIR(info.st_mode))
            return Status(Code::kInvalid, path.substr(0, start - 1) + ": not a directory");
        ASSIGN_OR_RETURN(step, openStep(step.get(), part, shown, info));
        if (S_ISLNK(info.st_mode))
            return Status(Code::kDenied, shown + ": a symbolic link; give the path that it stands for");
        RETURN_IF_ERROR(checkOwner(shown, info));
        start = end + 1;
    }
    if (!S_ISREG(info.st_mode) || (info.st_mode & S_IXUSR) == 0)
        return Status(Code::kDenied, path + ": not a program");
    return {};
}

Result<std::string> programOfJob(const std::string& name)
{
    ASSIGN_OR_RETURN(const std::string directory, jobDirectory());
    const std::string path = directory + "/" + name;
    const auto fd = sys::openFile(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (fd.code() == Code::kNotFound)
        return Status(Code::kNotFound, name + ": nobody serves this name");
    RETURN_IF_ERROR(fd.status());
    RETURN_IF_ERROR(checkJobDirectory(directory));
    const int file = fd.value().get();
    ASSIGN_OR_RETURN(const struct stat info, sys::statFd(file));
    RETURN_IF_ERROR(checkOwner(path, info));
    if (!S_ISREG(info.st_mode) || info.st_size <= 0 || static_cast<uint64_t>(info.st_size) > kMaxProgramPathBytes)
        return Status(Code::kDenied, path + ": not a job");
    std::string program(static_cast<size_t>(info.st_size), '\0');
    RETURN_IF_ERROR(sys::readFully(file, program.data(), program.size()));
    RETURN_IF_ERROR(checkTrustedProgram(program));
    return program;
}

Status registerJob(const std::string& name, const std::string& program)
{
    if (::geteuid() != 0)
        return Status(Code::kDenied, "only root registers services of the system");
    if (!isServiceName(name))
        return Status(Code::kInvalid, "not a service name");
    RETURN_IF_ERROR(checkTrustedProgram(program));
    if (isBuiltInServiceName(name))
        return Status(Code::kExists, name + ": a name of this system's own");
    ASSIGN_OR_RETURN(const std::string base, namespaceDirectory(Namespace::kSystem));
    ASSIGN_OR_RETURN(const std::string directory, jobDirectory());
    ASSIGN_OR_RETURN(const NameLock lock, NameLock::take(base, name, NameLock::Wait::kNo));
    // A socket without a listener counts too: whose it was may come back.
    for (const std::string& taken : {base + "/" + name, directory + "/" + name}) {
        const auto present = sys::statLink(taken);
        if (present.ok())
            return Status(Code::kExists, name + ": taken");
        if (present.code() != Code::kNotFound)
            return present.status();
    }
    RETURN_IF_ERROR(sys::makeDirectories(directory, 0755));
    if (::chmod(directory.c_str(), 0755) != 0) // services have a narrow umask; every look-up reads here
        return Status::fromErrno(errno, directory);
    RETURN_IF_ERROR(checkJobDirectory(directory));
    ASSIGN_OR_RETURN(const auto jobs, sys::listDirectory(directory));
    if (jobs.size() >= kMaxJobs)
        return Status(Code::kTooLarge, "too many registered services");
    const std::string path = directory + "/" + name;
    RETURN_IF_ERROR(sys::writeFileAtomically(path, std::as_bytes(std::span(program)), 0644));
    return ::chmod(path.c_str(), 0644) == 0 ? Status() : Status::fromErrno(errno, path);
}

} // namespace vnt
