#pragma once

#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/authorization/Authorization.h"
#include "platform/authorization/AuthorizationWire.h"
#include "platform/base/Mutex.h"
#include "platform/mach/PacketServer.h"

namespace vnt::test {

/// An authority that answers as it is told and writes down what it was asked, over the real packets.
class ScriptedAuthority {
public:
    struct Script {
        Ref<Dictionary> definition; ///< of every right; null: no such right
        OSStatus setStatus = errAuthorizationSuccess;
        std::deque<OSStatus> copyStatuses; ///< in order; success when used up
        std::vector<std::string> granted; ///< what a successful request is answered with
    };

    /// Takes the name; clients wait until start().
    ScriptedAuthority(Namespace which, Script script);
    ~ScriptedAuthority();
    /// Begins to answer, on a thread of its own. Fork before.
    void start();
    /// What was asked since the last call: "get NAME", "set NAME {key: value, ...}",
    /// "copy [rights] (items) flags", "destroy".
    std::vector<std::string> transcript();

private:
    void onPacket(PacketServer::ConnectionId id, const Packet& packet);
    void note(std::string line);

    Mutex _mutex;
    Script _script; // used by the thread alone
    std::vector<std::string> _transcript VNT_GUARDED_BY(_mutex);
    std::unique_ptr<PacketServer> _server;
    std::thread _thread;
};

/// What the library writes for a right.
Ref<MutableDictionary> currentDefinition(int timeoutSec);

} // namespace vnt::test
