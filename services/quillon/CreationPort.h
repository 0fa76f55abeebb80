#pragma once

#include <memory>

#include "platform/authorization/Authorization.h"
#include "platform/mach/PortServer.h"

namespace vnt {

/// "quillon.server.mig": asked with an authorization, it starts a worker and answers with the worker's address. In the
/// user's namespace it serves its own user; in the system's, whoever the system's authority grants the right. One
/// thread.
class CreationPort {
public:
    static constexpr char kName[] = "quillon.server.mig";

    /// `program` is what is executed as a worker: this program itself.
    static Result<std::unique_ptr<CreationPort>> open(ServiceArguments arguments, std::string program);
    /// Serves until nobody has asked for a while; workers go on without it.
    Status run() { return _server->run(); }

private:
    explicit CreationPort(std::string program) : _program(std::move(program)) { }
    void onMessage(ReceivedMessage& message, const sys::PeerCredentials& sender);
    Result<std::string> createServer(ReceivedMessage& message, const sys::PeerCredentials& sender);
    Result<std::string> startWorker(const sys::PeerCredentials& client, const AuthorizationExternalForm& form);

    const std::string _program;
    std::unique_ptr<PortServer> _server;
};

} // namespace vnt
