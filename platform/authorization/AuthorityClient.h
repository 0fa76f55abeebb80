#pragma once

#include "platform/authorization/AuthorizationWire.h"
#include "platform/base/Mutex.h"
#include "platform/mach/NameService.h"
#include "platform/mach/PacketSocket.h"

namespace vnt {

/// One connection to an authority, which is one reference there. Requests of several threads go one after the other.
class AuthorityClient {
public:
    /// Null when there is no authority.
    static std::unique_ptr<AuthorityClient> connect(Namespace which);

    struct Answer {
        OSStatus status = errAuthorizationInternal;
        Packet packet; ///< keeps `body` alive
        ByteCursor body{{}};
    };
    /// How long an answer may take.
    enum class Patience {
        kAnswer, ///< some seconds
        kCheck, ///< a password is checked, perhaps after others of the same user: minutes
        kUser ///< somebody may be asked: no limit
    };
    /// Sends a request and waits for its answer. An authority that dies, stalls or answers nonsense gives
    /// errAuthorizationInternal, now and for every later request.
    Answer exchange(AuthorityRequest request, const AuthorityPacket& packet, Patience patience = Patience::kAnswer);

private:
    explicit AuthorityClient(UniqueFd connection) : _connection(std::move(connection)) { }
    bool awaitAnswer(AuthorityRequest request, const Deadline& deadline, Answer& answer) VNT_REQUIRES(_mutex);

    Mutex _mutex;
    UniqueFd _connection VNT_GUARDED_BY(_mutex);
};

} // namespace vnt
