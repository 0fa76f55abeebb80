#include "services/tsec/TaskDaemon.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

#include "platform/mach/JobFiles.h"
#include "platform/mach/PortTable.h"
#include "platform/mach/TaskPort.h"

namespace vnt {
namespace {

// What the library obtains for each request (Vantora/privileged).
constexpr const char* kAnalysisRight = "quillon.process.analysis";
constexpr const char* kTaskPortRight = "system.privilege.taskport.debug";

// A client process keeps one connection, open as long as it lives.
constexpr size_t kMaxConnections = 4096;
constexpr size_t kMaxConnectionsOfUser = 512;

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(RLIMIT_NOFILE, &limit); // fewer connections then
}

/// The request as its layout, or null when it is not exactly that: size, number of descriptors, byte order. What the
/// descriptors are, their users check.
template <typename Request> const Request* requestAs(const ReceivedMessage& message, uint32_t descriptors)
{
    const auto* request = message.as<Request>();
    if (!request || message.bytes().size() != sizeof(Request)
        || (message.header().msgh_bits & MACH_MSGH_BITS_COMPLEX) == 0
        || request->body.msgh_descriptor_count != descriptors)
        return nullptr;
    return request;
}

bool isMemory(uint32_t flags) { return descriptorType(flags) == MACH_MSG_OOL_DESCRIPTOR; }
/// A send right: a send-once right has no identity that could be recognised again.
bool isSendRight(uint32_t flags)
{
    return descriptorType(flags) == MACH_MSG_PORT_DESCRIPTOR && portDisposition(flags) == MACH_MSG_TYPE_MOVE_SEND;
}
bool isOurs(const NDR_record_t& ndr) { return ndr.int_rep == NDR_record.int_rep; }

kern_return_t statusOfJob(const Status& status)
{
    switch (status.code()) {
    case Code::kOk:
        return KERN_SUCCESS;
    case Code::kExists:
        return KERN_NAME_EXISTS;
    case Code::kDenied:
        return KERN_PROTECTION_FAILURE;
    case Code::kTimedOut:
        return KERN_RESOURCE_SHORTAGE;
    case Code::kSystem:
        return KERN_FAILURE;
    default:
        return KERN_INVALID_ARGUMENT;
    }
}

} // namespace

Result<std::unique_ptr<TaskDaemon>> TaskDaemon::open(ServiceArguments arguments, std::chrono::milliseconds idleExit)
{
    if (::geteuid() != 0)
        return Status(Code::kDenied, "only root can serve task ports; start it as root");
    if (arguments.which != Namespace::kSystem)
        return Status(Code::kDenied, "serves the system's namespace only; start it with --namespace=system");
    raiseDescriptorLimit();
    PortServer::Options options;
    options.arguments = std::move(arguments);
    options.name = kName;
    options.access = PacketServer::Access::kAnyUser; // each request is asked for its authorization
    options.idleExit = idleExit;
    options.maxConnections = kMaxConnections;
    options.maxConnectionsPerUser = kMaxConnectionsOfUser;
    std::unique_ptr<TaskDaemon> daemon(new TaskDaemon);
    TaskDaemon* self = daemon.get();
    ASSIGN_OR_RETURN(
        daemon->_server,
        PortServer::open(
            std::move(options),
            [self](ReceivedMessage& message, const sys::PeerCredentials& sender) { self->onMessage(message, sender); },
            [self] { return !self->_watches->busy() && self->_checks->pending() == 0; }));
    daemon->_checks = std::make_unique<AuthorizationChecks>(
        [self](std::function<void()> task) { self->_server->packets().post(std::move(task)); });
    daemon->_watches = std::make_unique<Watches>(*daemon->_server);
    return daemon;
}

void TaskDaemon::onMessage(ReceivedMessage& message, const sys::PeerCredentials& sender)
{
    switch (message.header().msgh_id) {
    case kAttachAccessId:
        return onAttachAccess(message, sender.uid);
    case kSetupLaunchDaemonId:
        return onSetupLaunchDaemon(message, sender.uid);
    case kWatchPidsId:
        return onWatchPids(message, sender.uid);
    case kGetSymbolicationInfoId:
    case kStopWatchingPidsId:
        return onClientHandle(message, sender.uid);
    default:
        PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
    }
}

void TaskDaemon::authorize(ReceivedMessage& message, uint32_t count, uid_t user, const char* request,
                           std::vector<const char*> rights, Authorized then, std::function<void()> otherwise)
{
    const int32_t id = message.header().msgh_id;
    const mach_port_name_t replyPort = message.takeReplyPort();
    const auto refuse = [this, replyPort, id, request, user, otherwise](kern_return_t status, const std::string& why) {
        _log.refused(request, user, why);
        PortServer::replyStatus(replyPort, id, status);
        if (otherwise)
            otherwise();
    };
    const auto data = message.memory(0); // a copy of ours, or sealed against every change
    AuthorizationExternalForm form{};
    if (count != data.size() || (count != 0 && count != sizeof form.bytes))
        return refuse(KERN_INVALID_ARGUMENT, "malformed authorization data");
    if (count == 0)
        return refuse(KERN_NO_ACCESS, "no authorization");
    std::memcpy(form.bytes, data.data(), sizeof form.bytes);
    const bool waits = _checks->check(form, user, std::move(rights),
                                      [refuse, then = std::move(then), replyPort](const Status& status) {
                                          if (status.ok())
                                              then(replyPort);
                                          else
                                              refuse(KERN_NO_ACCESS, status.message());
                                      });
    if (!waits)
        refuse(KERN_RESOURCE_SHORTAGE, "too many requests wait");
}

void TaskDaemon::onAttachAccess(ReceivedMessage& message, uid_t user)
{
    const auto* request = requestAs<AttachAccessRequest<NativeAddress>>(message, 1);
    if (!request || !isMemory(request->authorization.flags) || !isOurs(request->ndr))
        return PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
    authorize(message, request->authorizationCount, user, "attach_access", {kAnalysisRight, kTaskPortRight},
              [this, pid = request->pid, user](mach_port_name_t replyPort) { attach(replyPort, pid, user); });
}

void TaskDaemon::attach(mach_port_name_t replyPort, pid_t pid, uid_t user)
{
    // Ourselves we do not open: nobody has anything to look for in here.
    auto files = pid == ::getpid() ? Status(Code::kDenied, "the daemon itself") : openTask(pid);
    auto right = files.ok() ? makeTaskRight(files.value()) : files.status();
    auto name = right.ok() ? PortTable::shared().insertSend(right.take()) : right.status();
    if (!name.ok()) {
        _log.refused("attach_access", user, "process " + std::to_string(pid) + ": " + name.status().message());
        return PortServer::replyStatus(replyPort, kAttachAccessId, KERN_FAILURE);
    }
    _log.granted("attach_access", user, "process " + std::to_string(pid));
    AttachAccessReply reply{};
    reply.header.msgh_id = kAttachAccessId + kReplyIdDistance;
    reply.body.msgh_descriptor_count = 1;
    reply.task = {name.value(), 0, portFlags(MACH_MSG_TYPE_MOVE_SEND)};
    if (PortServer::sendReply(replyPort, &reply.header, sizeof reply, /*complex=*/true) != KERN_SUCCESS)
        (void)mach_port_deallocate(mach_task_self(), name.value()); // the client is gone: nobody took it
}

void TaskDaemon::onSetupLaunchDaemon(ReceivedMessage& message, uid_t user)
{
    const auto* request = requestAs<SetupLaunchDaemonRequest<NativeAddress>>(message, 2);
    const auto payload = message.memory(1);
    if (!request || !isMemory(request->authorization.flags) || !isMemory(request->payload.flags)
        || !isOurs(request->ndr) || request->payloadCount != payload.size())
        return PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
    // Parsed at once, so that a large payload is not kept while the authority is asked.
    const auto job = LaunchJob::parse(payload);
    authorize(message, request->authorizationCount, user, "setup_launch_daemon", {kAnalysisRight},
              [this, job, user](mach_port_name_t replyPort) { setUp(replyPort, job, user); });
}

void TaskDaemon::setUp(mach_port_name_t replyPort, const Result<LaunchJob>& job, uid_t user)
{
    const Status status = job.ok() ? registerJob(job.value().name, job.value().program) : job.status();
    if (status.ok())
        _log.granted("setup_launch_daemon", user, job.value().name + " is " + job.value().program);
    else
        _log.refused("setup_launch_daemon", user, status.message());
    PortServer::replyStatus(replyPort, kSetupLaunchDaemonId, statusOfJob(status));
}

void TaskDaemon::onWatchPids(ReceivedMessage& message, uid_t user)
{
    const auto* request = requestAs<WatchPidsRequest<NativeAddress>>(message, 2);
    if (!request || !isMemory(request->authorization.flags) || !isSendRight(request->clientHandle.flags)
        || !isOurs(request->ndr))
        return PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
    const mach_port_name_t handle = message.takePort(1);
    authorize(
        message, request->authorizationCount, user, "watch_pids", {kTaskPortRight},
        [this, handle, user](mach_port_name_t replyPort) {
            std::string why;
            const kern_return_t status = _watches->begin(handle, user, why);
            if (status == KERN_SUCCESS)
                _log.granted("watch_pids", user, "a watch");
            else
                _log.refused("watch_pids", user, why);
            PortServer::replyStatus(replyPort, kWatchPidsId, status);
        },
        [handle] {
            if (handle != MACH_PORT_NULL)
                (void)mach_port_deallocate(mach_task_self(), handle);
        });
}

void TaskDaemon::onClientHandle(ReceivedMessage& message, uid_t user)
{
    const auto* request = requestAs<ClientHandleRequest>(message, 1);
    if (!request || !isSendRight(request->clientHandle.flags))
        return PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
    const int32_t id = message.header().msgh_id;
    const mach_port_name_t handle = message.takePort(0);
    _watches->answer(handle, user, message.takeReplyPort(), id, /*end=*/id == kStopWatchingPidsId);
}

} // namespace vnt
