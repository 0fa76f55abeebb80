#pragma once

#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// One thin function per system call: a value or a Status, EINTR handled, every descriptor close-on-exec.
namespace vnt::sys {

Result<UniqueFd> openFile(const std::string& path, int flags, mode_t mode = 0);
/// Reads until end of file; fails with kTooLarge past `limitBytes`.
Result<std::string> readFile(const std::string& path, size_t limitBytes);
/// Writes a new file beside `path`, syncs nothing, renames it over `path`. The temporary name is unpredictable.
Status writeFileAtomically(const std::string& path, std::span<const std::byte> data, mode_t mode);

/// At most `size` bytes; 0 at the end.
Result<size_t> readSome(int fd, void* data, size_t size);
Status readFully(int fd, void* data, size_t size);
Status writeFully(int fd, const void* data, size_t size);

Result<struct stat> statFile(const std::string& path);
Result<struct stat> statLink(const std::string& path);
Result<struct stat> statFd(int fd);
/// Creates the directory and its missing parents; an existing directory is success.
Status makeDirectories(const std::string& path, mode_t mode);
Result<std::vector<std::string>> listDirectory(const std::string& path);

/// SOCK_CLOEXEC is added; `type` is SOCK_STREAM or SOCK_SEQPACKET (socket(2)).
Result<std::pair<UniqueFd, UniqueFd>> socketPair(int type);
/// Listening Unix socket at `path`, which must not exist; its mode is 0600.
Result<UniqueFd> listenUnix(const std::string& path, int type, int backlog);
Result<UniqueFd> connectUnix(const std::string& path, int type);
/// Waits at most `timeout`, or without limit when it is negative; kTimedOut then.
Result<UniqueFd> acceptOne(int listener, std::chrono::milliseconds timeout);

struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
};
/// SO_PEERCRED of a connected Unix socket (unix(7)).
Result<PeerCredentials> peerCredentials(int socket);

/// Number of ready descriptors, 0 on time-out. Negative timeout: no limit.
Result<int> pollFds(std::span<struct pollfd> fds, std::chrono::milliseconds timeout);

Result<std::pair<UniqueFd, UniqueFd>> makePipe();
Result<UniqueFd> makeEventFd();
/// CLOCK_MONOTONIC in nanoseconds; costs about 30 ns.
[[nodiscard]] uint64_t monotonicNs();
/// CLOCK_REALTIME in seconds since 1970.
[[nodiscard]] double realtimeSec();

/// pidfd_open(2).
Result<UniqueFd> openPidFd(pid_t pid);
/// pidfd_send_signal(2); `signal` 0 tests for life.
Status signalPidFd(int pidFd, int signal);

/// `size` bytes from getrandom(2).
Status randomBytes(void* data, size_t size);
[[nodiscard]] std::string randomHex(size_t bytes);

/// True when the process runs with privilege its caller lacks (AT_SECURE, getauxval(3)): no override from
/// the environment may be honoured then.
[[nodiscard]] bool isSecureExecution();
[[nodiscard]] std::string environmentOr(const char* name, const std::string& fallback);
/// readlink(2) of /proc/self/exe.
Result<std::string> executablePath();

/// Blocks every signal for the calling thread until destroyed, so that a thread created meanwhile starts
/// with all signals blocked and never runs a host's handler.
class SignalBlock {
public:
    SignalBlock();
    ~SignalBlock();
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    alignas(8) unsigned char _saved[128];
};

} // namespace vnt::sys
