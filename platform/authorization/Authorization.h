#pragma once

#include <Vantora/Authorization.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>

#include "platform/base/Status.h"
#include "platform/foundation/Collections.h"

/// Client half of the authorization service: the C functions of <Vantora/Authorization.h>, and what servers ask.
namespace vnt {

/// Which authority AuthorizationCreate and AuthorizationRightGet reach on this thread. The session's own authorization
/// uses that of the namespace `bootstrap_port` stands for; all other rights go to the system's.
enum class AuthorityNamespace { kBootstrapPort, kSystem };

/// Scoped choice for the calling thread; the default is kSystem.
class AuthorityScope {
public:
    explicit AuthorityScope(AuthorityNamespace choice);
    ~AuthorityScope();
    AuthorityScope(const AuthorityScope&) = delete;
    AuthorityScope& operator=(const AuthorityScope&) = delete;

private:
    AuthorityNamespace _previous;
};

/// For servers: does the external form, presented by a peer of `peerUid`, hold `right` now? Asks the authority of the
/// server's own namespace; blocks for that one exchange (some 50 microseconds), at most some seconds. Errors: kDenied
/// (no such token, other uid, expired, freed, right not held), kPeerGone (no authority, or it does not answer).
Status checkAuthorization(const AuthorizationExternalForm& form, uid_t peerUid, const char* right);

class AuthorityClient;

/// checkAuthorization() for a server that asks about the same form again and again: over one connection, on which a
/// form that was good at the first check stays good while its reference lives, whatever its own expiry. A check takes
/// some 20 us. One thread at a time.
class AuthorizationChecker {
public:
    AuthorizationChecker();
    ~AuthorizationChecker();
    AuthorizationChecker(const AuthorizationChecker&) = delete;
    AuthorizationChecker& operator=(const AuthorizationChecker&) = delete;

    Status check(const AuthorizationExternalForm& form, uid_t peerUid, const char* right);

private:
    std::unique_ptr<AuthorityClient> _client; // from the first check on
};

} // namespace vnt
