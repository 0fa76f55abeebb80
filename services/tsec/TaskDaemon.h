#pragma once

#include "services/tsec/AuthorizationChecks.h"
#include "services/tsec/LaunchJob.h"
#include "services/tsec/RequestLog.h"
#include "services/tsec/Watches.h"

namespace vnt {

/// KxTSecD: task ports, further services of the system, watches of processes, for whoever the system's authority grants
/// the right. The user of a request is that of its connection (SO_PEERCRED); the connection's pid is never used. One
/// thread; made by main, which keeps it until run() has returned.
class TaskDaemon {
public:
    static constexpr char kName[] = "quillon.tfp";

    /// kDenied unless run by root for the system's namespace.
    static Result<std::unique_ptr<TaskDaemon>> open(ServiceArguments arguments,
                                                    std::chrono::milliseconds idleExit = std::chrono::seconds(60));
    /// Serves until nobody is connected or watches for a while.
    Status run() { return _server->run(); }
    PortServer& server() { return *_server; }

private:
    using Authorized = std::function<void(mach_port_name_t replyPort)>;

    TaskDaemon() = default;
    void onMessage(ReceivedMessage& message, const sys::PeerCredentials& sender);
    void onAttachAccess(ReceivedMessage& message, uid_t user);
    void onSetupLaunchDaemon(ReceivedMessage& message, uid_t user);
    void onWatchPids(ReceivedMessage& message, uid_t user);
    void onClientHandle(ReceivedMessage& message, uid_t user);
    /// Goes on with `then` when the authorization data in the message's first descriptor holds all `rights`; `then`
    /// owns the reply right. Otherwise the client is told, and `otherwise` runs when there is one.
    void authorize(ReceivedMessage& message, uint32_t count, uid_t user, const char* request,
                   std::vector<const char*> rights, Authorized then, std::function<void()> otherwise = {});

    void attach(mach_port_name_t replyPort, pid_t pid, uid_t user);
    void setUp(mach_port_name_t replyPort, const Result<LaunchJob>& job, uid_t user);

    RequestLog _log;
    std::unique_ptr<PortServer> _server; // before those that post to it
    std::unique_ptr<AuthorizationChecks> _checks;
    std::unique_ptr<Watches> _watches;
};

} // namespace vnt
