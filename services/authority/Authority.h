#pragma once

#include <optional>

#include "platform/authorization/AuthorizationWire.h"
#include "services/authority/CredentialDesk.h"
#include "services/authority/References.h"
#include "services/authority/RightsDatabase.h"

namespace vnt {

/// The authorization service: decides about rights for the references of its clients. One thread, that of its
/// PacketServer; made by main, which keeps it until run() has returned. What may wait or be attacked runs in helper
/// processes (CredentialDesk).
class Authority {
public:
    static Result<std::unique_ptr<Authority>> open(AuthorityArguments arguments);

    /// Serves until nobody holds a reference, and nothing is remembered that would change an answer.
    Status run() { return _server->run(); }

private:
    using Id = PacketServer::ConnectionId;
    using Instant = std::chrono::steady_clock::time_point;
    /// A copyRights request while it is decided right by right.
    struct Decision;

    Authority(const AuthorityArguments& arguments, AuthorityConfiguration configuration, RightsDatabase database);
    void onPacket(Id id, const sys::PeerCredentials& peer, Packet& packet);
    void onClose(Id id);
    void refuse(Id id, const sys::PeerCredentials& peer);
    void answer(Id id, AuthorityRequest request, OSStatus status, std::span<const std::byte> body = {});

    void makeForm(Id id);
    void checkForm(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor);
    void getRight(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor);
    void setRight(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor);
    void askToSetRight(Id id, const sys::PeerCredentials& peer, const std::string& name, Ref<Dictionary> definition);
    void storeRight(Id id, const sys::PeerCredentials& peer, const std::string& name, Ref<Dictionary> definition);

    void copyRights(Id id, const sys::PeerCredentials& peer, ByteCursor& cursor);
    void decideNext(std::shared_ptr<Decision> decision);
    [[nodiscard]] std::optional<OSStatus> decideAlone(Decision& decision, const std::string& right,
                                                      const std::optional<RightRule>& rule);
    [[nodiscard]] const Credential* credentialFor(Decision& decision, const RightRule& rule) const;
    void askFor(const std::shared_ptr<Decision>& decision, const std::string& right, const RightRule& rule);
    void finish(Decision& decision, OSStatus status);

    const bool _isSystem;
    const AuthorityConfiguration _configuration;
    RightsDatabase _database;
    References _references;
    SharedCredentials _shared;
    AuditLog _log;
    std::unique_ptr<PacketServer> _server; // its handlers use the members above
    std::unique_ptr<CredentialDesk> _desk; // last: its helpers are watched by the server. Null: nobody is ever asked
};

} // namespace vnt
