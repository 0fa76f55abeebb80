#include "services/quillon/CreationPort.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "platform/mach/Namespace.h"
#include "services/quillon/Worker.h"

namespace vnt {
namespace {

constexpr char kAnalysisRight[] = "quillon.process.analysis";
constexpr auto kIdleExit = std::chrono::seconds(60);

Result<AuthorizationExternalForm> checkedForm(std::span<const std::byte> form, uid_t uid)
{
    AuthorizationExternalForm external;
    if (form.size() != sizeof external.bytes)
        return Status(Code::kDenied, "no authorization");
    std::memcpy(external.bytes, form.data(), sizeof external.bytes);
    RETURN_IF_ERROR(checkAuthorization(external, uid, kAnalysisRight));
    return external;
}

/// The directory that holds one worker's socket, for `client` alone.
Result<std::string> makeWorkerDirectory(uid_t client)
{
    ASSIGN_OR_RETURN(const std::string base, namespaceDirectory(currentNamespace()));
    const std::string directory = base + "/w-" + sys::randomHex(8);
    if (::mkdir(directory.c_str(), 0700) != 0)
        return Status::fromErrno(errno, directory);
    if (client != ::geteuid() && ::chown(directory.c_str(), client, static_cast<gid_t>(-1)) != 0)
        return Status::fromErrno(errno, "chown " + directory);
    return directory;
}

/// Executes the worker with two descriptors beside the null standard files: the listening socket and a pipe that holds
/// the client's form. The service's own SIGCHLD is ignored (see main), so no zombie stays.
Status execWorker(const std::string& program, int listener, const std::string& directory,
                  const sys::PeerCredentials& client, const AuthorizationExternalForm& form)
{
    const std::string pid = std::to_string(client.pid);
    const std::string uid = std::to_string(client.uid);
    const char* const which = currentNamespace() == Namespace::kSystem ? "system" : "user";
    const char* const arguments[] = {program.c_str(), kWorkerArgument, directory.c_str(), pid.c_str(), uid.c_str(),
                                     which,           nullptr};
    ASSIGN_OR_RETURN(const auto pipe, sys::makePipe());
    RETURN_IF_ERROR(sys::writeFully(pipe.second.get(), form.bytes, sizeof form.bytes));
    // To places above those they will stand at.
    const UniqueFd socket(::fcntl(listener, F_DUPFD_CLOEXEC, kWorkerForm + 1));
    const UniqueFd content(::fcntl(pipe.first.get(), F_DUPFD_CLOEXEC, kWorkerForm + 1));
    if (!socket.valid() || !content.valid())
        return Status::fromErrno(errno, "F_DUPFD_CLOEXEC");
    const pid_t child = ::fork();
    if (child < 0)
        return Status::fromErrno(errno, "fork");
    if (child > 0)
        return {};
    // Only async-signal-safe calls from here on.
    ::signal(SIGCHLD, SIG_DFL);
    ::dup2(socket.get(), kWorkerSocket);
    ::dup2(content.get(), kWorkerForm);
    ::execv(program.c_str(), const_cast<char* const*>(arguments));
    ::_exit(127);
}

} // namespace

Result<std::unique_ptr<CreationPort>> CreationPort::open(ServiceArguments arguments, std::string program)
{
    std::unique_ptr<CreationPort> port(new CreationPort(std::move(program)));
    PortServer::Options options;
    // Whoever may connect is asked for an authorization; the system's namespace serves every user.
    options.access =
        arguments.which == Namespace::kSystem ? PacketServer::Access::kAnyUser : PacketServer::Access::kOwnUser;
    options.arguments = std::move(arguments);
    options.name = kName;
    options.idleExit = kIdleExit;
    auto server = PortServer::open(std::move(options),
                                   [self = port.get()](ReceivedMessage& message, const sys::PeerCredentials& sender) {
                                       self->onMessage(message, sender);
                                   });
    RETURN_IF_ERROR(server.status());
    port->_server = server.take();
    return port;
}

void CreationPort::onMessage(ReceivedMessage& message, const sys::PeerCredentials& sender)
{
    if (message.header().msgh_id != kCreateServerId) {
        PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
        return;
    }
    const auto address = createServer(message, sender);
    if (address.ok())
        PortServer::replyAddress(message, address.value());
    else
        PortServer::replyStatus(message, address.code() == Code::kDenied ? KERN_NO_ACCESS : KERN_FAILURE);
}

Result<std::string> CreationPort::createServer(ReceivedMessage& message, const sys::PeerCredentials& sender)
{
    ASSIGN_OR_RETURN(const AuthorizationExternalForm form, checkedForm(message.memory(0), sender.uid));
    return startWorker(sender, form);
}

Result<std::string> CreationPort::startWorker(const sys::PeerCredentials& client, const AuthorizationExternalForm& form)
{
    ASSIGN_OR_RETURN(const std::string directory, makeWorkerDirectory(client.uid));
    const std::string path = directory + "/q";
    Status status;
    auto listener = sys::listenUnix(path, SOCK_STREAM, 1);
    if (!listener.ok())
        status = listener.status();
    else if (client.uid != ::geteuid() && ::chown(path.c_str(), client.uid, static_cast<gid_t>(-1)) != 0)
        status = Status::fromErrno(errno, "chown " + path);
    else
        status = execWorker(_program, listener.value().get(), directory, client, form);
    if (status.ok())
        return "unix:" + path;
    (void)::unlink(path.c_str()); // may never have been made
    (void)::rmdir(directory.c_str());
    return status;
}

} // namespace vnt
