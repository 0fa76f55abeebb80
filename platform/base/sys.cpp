#include "platform/base/sys.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/eventfd.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vnt::sys {
namespace {

template <typename Call> auto retried(Call call) -> decltype(call())
{
    for (;;) {
        auto result = call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

Result<sockaddr_un> addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return Status(Code::kTooLarge, path + ": too long for a socket path");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

Result<UniqueFd> newSocket(int type)
{
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return Status::fromErrno(errno, "socket");
    return UniqueFd(fd);
}

} // namespace

Result<UniqueFd> openFile(const std::string& path, int flags, mode_t mode)
{
    const int fd = retried([&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); });
    if (fd < 0)
        return Status::fromErrno(errno, path);
    return UniqueFd(fd);
}

Result<std::string> readFile(const std::string& path, size_t limitBytes)
{
    ASSIGN_OR_RETURN(UniqueFd fd, openFile(path, O_RDONLY));
    std::string text;
    char block[16384];
    for (;;) {
        ASSIGN_OR_RETURN(const size_t count, readSome(fd.get(), block, sizeof block));
        if (count == 0)
            return text;
        if (count > limitBytes - text.size())
            return Status(Code::kTooLarge, path + ": larger than " + std::to_string(limitBytes) + " bytes");
        text.append(block, count);
    }
}

Status writeFileAtomically(const std::string& path, std::span<const std::byte> data, mode_t mode)
{
    const std::string temporary = path + "." + randomHex(8);
    auto fd = openFile(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
    RETURN_IF_ERROR(fd.status());
    Status status = writeFully(fd.value().get(), data.data(), data.size());
    if (status.ok() && ::rename(temporary.c_str(), path.c_str()) != 0)
        status = Status::fromErrno(errno, path);
    if (!status.ok())
        (void)::unlink(temporary.c_str()); // the first failure is the one to report
    return status;
}

Result<size_t> readSome(int fd, void* data, size_t size)
{
    const ssize_t count = retried([&] { return ::read(fd, data, size); });
    if (count < 0)
        return Status::fromErrno(errno, "read");
    return static_cast<size_t>(count);
}

Status readFully(int fd, void* data, size_t size)
{
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        ASSIGN_OR_RETURN(const size_t count, readSome(fd, bytes, size));
        if (count == 0)
            return Status(Code::kPeerGone, "end of file");
        bytes += count;
        size -= count;
    }
    return {};
}

Status writeFully(int fd, const void* data, size_t size)
{
    const auto* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = retried([&] { return ::write(fd, bytes, size); });
        if (count < 0)
            return Status::fromErrno(errno, "write");
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return {};
}

Result<struct stat> statFile(const std::string& path)
{
    struct stat info { };
    if (::stat(path.c_str(), &info) != 0)
        return Status::fromErrno(errno, path);
    return info;
}

Result<struct stat> statLink(const std::string& path)
{
    struct stat info { };
    if (::lstat(path.c_str(), &info) != 0)
        return Status::fromErrno(errno, path);
    return info;
}

Result<struct stat> statFd(int fd)
{
    struct stat info { };
    if (::fstat(fd, &info) != 0)
        return Status::fromErrno(errno, "fstat");
    return info;
}

Status makeDirectories(const std::string& path, mode_t mode)
{
    for (size_t end = 1; end != std::string::npos && end <= path.size();) {
        end = path.find('/', end);
        const std::string part = path.substr(0, end);
        if (::mkdir(part.c_str(), mode) != 0 && errno != EEXIST) {
            // A parent may deny writing and yet exist (EROFS, EACCES): only what is missing is an error.
            const int error = errno;
            struct stat info { };
            if (::stat(part.c_str(), &info) != 0)
                return Status::fromErrno(error, part);
        }
        if (end != std::string::npos)
            ++end;
    }
    ASSIGN_OR_RETURN(struct stat info, statFile(path));
    if (!S_ISDIR(info.st_mode))
        return Status::fromErrno(ENOTDIR, path);
    return {};
}

Result<std::vector<std::string>> listDirectory(const std::string& path)
{
    DIR* directory = ::opendir(path.c_str());
    if (!directory)
        return Status::fromErrno(errno, path);
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    ::closedir(directory);
    return names;
}

Result<std::pair<UniqueFd, UniqueFd>> socketPair(int type)
{
    int fds[2];
    if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) != 0)
        return Status::fromErrno(errno, "socketpair");
    return std::pair(UniqueFd(fds[0]), UniqueFd(fds[1]));
}

Result<UniqueFd> listenUnix(const std::string& path, int type, int backlog)
{
    ASSIGN_OR_RETURN(const sockaddr_un address, addressOf(path));
    ASSIGN_OR_RETURN(UniqueFd fd, newSocket(type));
    // The mode of the socket file follows the socket's own mode on Linux: set before bind, no window.
    if (::fchmod(fd.get(), 0600) != 0)
        return Status::fromErrno(errno, "fchmod of a socket");
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return Status::fromErrno(errno, "bind " + path);
    if (::listen(fd.get(), backlog) != 0)
        return Status::fromErrno(errno, "listen " + path);
    return fd;
}

Result<UniqueFd> connectUnix(const std::string& path, int type)
{
    ASSIGN_OR_RETURN(const sockaddr_un address, addressOf(path));
    ASSIGN_OR_RETURN(UniqueFd fd, newSocket(type));
    const int result =
        retried([&] { return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address); });
    if (result != 0)
        return Status::fromErrno(errno, "connect " + path);
    return fd;
}

Result<UniqueFd> acceptOne(int listener, std::chrono::milliseconds timeout)
{
    pollfd ready{listener, POLLIN, 0};
    ASSIGN_OR_RETURN(const int count, pollFds({&ready, 1}, timeout));
    if (count == 0)
        return Status(Code::kTimedOut, "accept: nobody connected");
    const int fd = retried([&] { return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC); });
    if (fd < 0)
        return Status::fromErrno(errno, "accept");
    return UniqueFd(fd);
}

Result<PeerCredentials> peerCredentials(int socket)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return Status::fromErrno(errno, "SO_PEERCRED");
    return PeerCredentials{credentials.pid, credentials.uid, credentials.gid};
}

Result<int> pollFds(std::span<struct pollfd> fds, std::chrono::milliseconds timeout)
{
    const bool limited = timeout.count() >= 0;
    const auto deadline = std::chrono::steady_clock::now() + (limited ? timeout : std::chrono::milliseconds(0));
    for (;;) {
        int waitMs = -1;
        if (limited) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            waitMs = static_cast<int>(std::max<int64_t>(0, left.count()));
        }
        const int count = ::poll(fds.data(), static_cast<nfds_t>(fds.size()), waitMs);
        if (count >= 0)
            return count;
        if (errno != EINTR)
            return Status::fromErrno(errno, "poll");
    }
}

Result<std::pair<UniqueFd, UniqueFd>> makePipe()
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return Status::fromErrno(errno, "pipe");
    return std::pair(UniqueFd(fds[0]), UniqueFd(fds[1]));
}

Result<UniqueFd> makeEventFd()
{
    const int fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        return Status::fromErrno(errno, "eventfd");
    return UniqueFd(fd);
}

uint64_t monotonicNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

double realtimeSec()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

Result<UniqueFd> openPidFd(pid_t pid)
{
    const long fd = ::syscall(SYS_pidfd_open, pid, 0);
    if (fd < 0)
        return Status::fromErrno(errno, "pidfd_open " + std::to_string(pid));
    return UniqueFd(static_cast<int>(fd));
}

Status signalPidFd(int pidFd, int signal)
{
    if (::syscall(SYS_pidfd_send_signal, pidFd, signal, nullptr, 0) != 0)
        return Status::fromErrno(errno, "pidfd_send_signal");
    return {};
}

Status randomBytes(void* data, size_t size)
{
    auto* bytes = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t count = retried([&] { return ::getrandom(bytes, size, 0); });
        if (count < 0)
            return Status::fromErrno(errno, "getrandom");
        bytes += count;
        size -= static_cast<size_t>(count);
    }
    return {};
}

std::string randomHex(size_t bytes)
{
    std::string raw(bytes, '\0');
    VNT_CHECK(randomBytes(raw.data(), bytes).ok());
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes * 2);
    for (const char c : raw) {
        text.push_back(kDigits[(static_cast<unsigned char>(c)) >> 4]);
        text.push_back(kDigits[static_cast<unsigned char>(c) & 15]);
    }
    return text;
}

bool isSecureExecution() { return ::getauxval(AT_SECURE) != 0; }

std::string environmentOr(const char* name, const std::string& fallback)
{
    const char* value = ::getenv(name);
    return value && *value ? value : fallback;
}

Result<std::string> executablePath()
{
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
    if (length < 0)
        return Status::fromErrno(errno, "/proc/self/exe");
    return std::string(path, static_cast<size_t>(length));
}

SignalBlock::SignalBlock()
{
    static_assert(sizeof(sigset_t) <= sizeof _saved);
    sigset_t all;
    sigset_t saved;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &saved);
    std::memcpy(_saved, &saved, sizeof saved);
}

SignalBlock::~SignalBlock()
{
    sigset_t saved;
    std::memcpy(&saved, _saved, sizeof saved);
    ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

} // namespace vnt::sys
