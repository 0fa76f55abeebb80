#include "platform/mach/NameService.h"

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/base/sys.h"
#include "platform/mach/JobFiles.h"
#include "platform/mach/PacketSocket.h"
#include "platform/mach/ServiceStart.h"

// The build says how the installed services are reached: from the library's directory, from the tool's, and as a path.
#ifndef VNT_FROM_LIBRARY
#define VNT_FROM_LIBRARY "../libexec/vantora"
#define VNT_FROM_PROGRAM "../libexec/vantora"
#define VNT_SERVICE_DIRECTORY "/usr/libexec/vantora"
#endif

namespace vnt {
namespace {

// For everything between the first connect(2) and the greeting: a cold start takes some ten milliseconds.
constexpr std::chrono::seconds kAnswerPatience{15};
// Connections that may wait for a service that is starting or busy.
constexpr int kBacklog = 128;

struct Job {
    const char* name;
    const char* program;
};
constexpr Job kJobs[] = {
    {"quillon.server.mig", "QuillonServer"},
    {"quillon.authority", "VantoraAuthority"},
    {"quillon.tfp", "KxTSecD"},
};

/// One look-up: what is asked for and until when.
struct LookUp {
    Namespace which;
    const std::string& name;
    std::string directory;
    std::string path;
    std::chrono::steady_clock::time_point deadline;
};

Result<UniqueFd> connectWithin(const LookUp& lookUp)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (lookUp.path.size() >= sizeof address.sun_path)
        return Status(Code::kTooLarge, lookUp.path + ": too long for a socket path");
    std::memcpy(address.sun_path, lookUp.path.c_str(), lookUp.path.size() + 1);
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd)
        return Status::fromErrno(errno, "socket");
    for (;;) {
        // connect(2) waits while the queue is full; SO_SNDTIMEO bounds it (unix(7)), zero would mean no bound.
        const auto left = std::max(timeLeft(lookUp.deadline), std::chrono::milliseconds(1)).count();
        const timeval limit{static_cast<time_t>(left / 1000), static_cast<suseconds_t>(left % 1000 * 1000)};
        (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return fd;
        if (errno == EAGAIN)
            return Status(Code::kTimedOut, lookUp.name + ": the service takes no connections");
        if (errno != EINTR)
            return Status::fromErrno(errno, lookUp.path);
    }
}

Status checkPeer(const LookUp& lookUp, int fd)
{
    ASSIGN_OR_RETURN(const sys::PeerCredentials peer, sys::peerCredentials(fd));
    const uid_t expected = lookUp.which == Namespace::kSystem ? 0 : ::geteuid();
    if (peer.uid != expected)
        return Status(Code::kDenied, lookUp.name + ": served by another user");
    return {};
}

Status awaitGreeting(const LookUp& lookUp, int fd)
{
    for (;;) {
        pollfd ready{fd, POLLIN, 0};
        ASSIGN_OR_RETURN(const int count, sys::pollFds({&ready, 1}, timeLeft(lookUp.deadline)));
        if (count == 0)
            return Status(Code::kTimedOut, lookUp.name + ": the service does not answer");
        Packet packet;
        const ReceiveOutcome outcome = tryReceivePacket(fd, sizeof(ServiceGreeting), packet);
        if (outcome == ReceiveOutcome::kNothing)
            continue;
        if (outcome == ReceiveOutcome::kClosed)
            return Status(Code::kPeerGone, lookUp.name + ": the service ended before it answered");
        ServiceGreeting greeting;
        if (outcome == ReceiveOutcome::kRejected || packet.bytes.size() != sizeof greeting)
            return Status(Code::kInvalid, lookUp.name + ": the service does not speak this protocol");
        std::memcpy(&greeting, packet.bytes.data(), sizeof greeting);
        if (greeting.magic != ServiceGreeting::kMagic || greeting.version != ServiceGreeting::kVersion)
            return Status(Code::kInvalid, lookUp.name + ": the service does not speak this protocol");
        if (greeting.status == ServiceGreeting::kRefused)
            return Status(Code::kDenied, lookUp.name + ": the service refuses this user");
        if (greeting.status != ServiceGreeting::kAccepted)
            return Status(Code::kTimedOut, lookUp.name + ": the service is busy");
        return {};
    }
}

bool isAbsent(const Status& status) { return status.code() == Code::kNotFound || status.code() == Code::kPeerGone; }

/// Makes the listening socket at the name's path. The lock is held, and nobody answered there.
Result<UniqueFd> listenAt(const std::string& path, Namespace which)
{
    (void)::unlink(path.c_str()); // a stale socket; none is fine
    ASSIGN_OR_RETURN(UniqueFd listener, sys::listenUnix(path, SOCK_SEQPACKET, kBacklog));
    // Every user may ask the system's services; each looks at who asks.
    if (which == Namespace::kSystem && ::chmod(path.c_str(), 0666) != 0)
        return Status::fromErrno(errno, path);
    return listener;
}

Result<UniqueFd> startAndConnect(const LookUp& lookUp)
{
    ASSIGN_OR_RETURN(const std::string program, programForService(lookUp.which, lookUp.name));
    if (lookUp.which == Namespace::kSystem && ::geteuid() != 0) {
        // We may not take the lock. A service that tries to leave sets its name aside for less than a millisecond.
        const timespec pause{0, 5'000'000};
        (void)::nanosleep(&pause, nullptr);
        auto connected = connectWithin(lookUp);
        if (isAbsent(connected.status()))
            return Status(Code::kNotFound, lookUp.name + ": not running, and only root starts it");
        return connected;
    }
    ASSIGN_OR_RETURN(const NameLock lock, NameLock::take(lookUp.directory, lookUp.name, NameLock::Wait::kYes));
    auto connected = connectWithin(lookUp); // another starter may have been first
    if (connected.ok() || !isAbsent(connected.status()))
        return connected;
    ASSIGN_OR_RETURN(const UniqueFd listener, listenAt(lookUp.path, lookUp.which));
    const Status started = startService(program, lookUp.which, listener.get());
    if (!started.ok()) {
        (void)::unlink(lookUp.path.c_str());
        return started;
    }
    // Under the lock still: a service leaves only with the lock and an empty queue, so this connection is served.
    return connectWithin(lookUp);
}

/// The second attempt asks under the lock, where no service can be on its way out.
Result<UniqueFd> attempt(const LookUp& lookUp, bool first)
{
    Result<UniqueFd> connected = first ? connectWithin(lookUp) : startAndConnect(lookUp);
    if (first && isAbsent(connected.status()))
        connected = startAndConnect(lookUp);
    if (!connected.ok())
        return connected.status();
    RETURN_IF_ERROR(checkPeer(lookUp, connected.value().get()));
    RETURN_IF_ERROR(awaitGreeting(lookUp, connected.value().get()));
    return connected;
}

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::vector<std::string> programDirectories()
{
    if (!sys::isSecureExecution()) {
        const std::string given = sys::environmentOr("VANTORA_PROGRAM_DIR", "");
        if (!given.empty())
            return {given};
    }
    std::vector<std::string> directories;
    const auto addAround = [&](const std::string& file) {
        if (file.empty() || file[0] != '/')
            return;
        const std::string directory = directoryOf(file);
        for (const char* part : {"", "/../bin", "/" VNT_FROM_LIBRARY, "/" VNT_FROM_PROGRAM})
            directories.push_back(directory + part);
    };
    Dl_info here{};
    if (!sys::isSecureExecution()) {
        // The object that holds this very code: libVantora in a client, else the program itself.
        if (::dladdr(reinterpret_cast<const void*>(&isBuiltInServiceName), &here) != 0 && here.dli_fname)
            addAround(here.dli_fname);
        if (const auto executable = sys::executablePath(); executable.ok())
            addAround(executable.value());
    }
    directories.emplace_back(VNT_SERVICE_DIRECTORY);
    return directories;
}

} // namespace

bool isBuiltInServiceName(const std::string& name)
{
    for (const Job& job : kJobs) {
        if (name == job.name)
            return true;
    }
    return false;
}

Result<std::string> programForService(Namespace which, const std::string& name)
{
    for (const Job& job : kJobs) {
        if (name != job.name)
            continue;
        for (const std::string& directory : programDirectories()) {
            std::string path = directory + "/" + job.program;
            if (::access(path.c_str(), X_OK) == 0)
                return path;
        }
        return Status(Code::kNotFound, name + ": its program " + job.program + " is not installed");
    }
    if (which == Namespace::kSystem)
        return programOfJob(name);
    return Status(Code::kNotFound, name + ": nobody serves this name");
}

Result<UniqueFd> connectToService(Namespace which, const std::string& name)
{
    if (!isServiceName(name))
        return Status(Code::kNotFound, "not a service name");
    ASSIGN_OR_RETURN(const std::string directory, namespaceDirectory(which));
    const LookUp lookUp{which, name, directory, directory + "/" + name,
                        std::chrono::steady_clock::now() + kAnswerPatience};
    auto result = attempt(lookUp, /*first=*/true);
    // The service may be on its way out: the connection was queued, then reset. Once more, and it is started again.
    if (result.code() == Code::kPeerGone)
        result = attempt(lookUp, /*first=*/false);
    return result;
}

Result<UniqueFd> bindServiceName(Namespace which, const std::string& name)
{
    if (!isServiceName(name))
        return Status(Code::kInvalid, "not a service name");
    ASSIGN_OR_RETURN(const std::string directory, namespaceDirectory(which));
    const LookUp lookUp{which, name, directory, directory + "/" + name,
                        std::chrono::steady_clock::now() + kAnswerPatience};
    ASSIGN_OR_RETURN(const NameLock lock, NameLock::take(directory, name, NameLock::Wait::kYes));
    const auto present = connectWithin(lookUp);
    if (present.ok())
        return Status(Code::kExists, name + ": served already");
    if (!isAbsent(present.status()))
        return present.status();
    return listenAt(lookUp.path, which);
}

} // namespace vnt
