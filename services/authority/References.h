#pragma once

#include <Vantora/Authorization.h>
#include <sys/types.h>

#include <array>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Status.h"

namespace vnt {

/// The living references, one per connection: whose each is, which rights it holds until when, and the external form
/// that stands for it. One thread.
class References {
public:
    using Id = uint64_t; ///< of the connection
    using Instant = std::chrono::steady_clock::time_point;
    explicit References(std::chrono::seconds formLifetime) : _formLifetime(formLifetime) { }

    /// The reference of a connection, made at its first request.
    void open(Id id, uid_t user);
    void close(Id id);
    [[nodiscard]] bool empty() const { return _references.empty(); }

    void grant(Id id, const std::string& right, Instant until);
    [[nodiscard]] bool holds(Id id, std::string_view right, Instant now) const;
    void dropRights(Id id);

    /// A form of the reference: 32 bytes that cannot be guessed, good for at least half the lifetime from now, and for
    /// as long as the reference lives.
    Result<AuthorizationExternalForm> formOf(Id id, Instant now);
    /// The reference behind a form that has not expired, when `user` made it. The time taken does not tell how much of
    /// a wrong form was right.
    [[nodiscard]] std::optional<Id> find(const AuthorizationExternalForm& form, uid_t user, Instant now) const;
    /// As find(), for a server that asks on connection `server`: a form that was good when that connection first asked
    /// about it stays good there while its reference and the connection live. What expires is the time to present it.
    [[nodiscard]] std::optional<Id> findFor(Id server, const AuthorizationExternalForm& form, uid_t user, Instant now);

    /// A request of this reference waits for a credential; it may make no other meanwhile.
    void setBusy(Id id, bool busy);
    [[nodiscard]] bool isBusy(Id id) const;

private:
    // A form is a handle to look up and a secret to compare.
    static constexpr size_t kHandleBytes = 8;
    struct Form {
        AuthorizationExternalForm bytes{};
        Instant until;
    };
    /// A form that a server was told is good.
    struct Accepted {
        AuthorizationExternalForm bytes{};
        Id reference = 0;
    };
    static constexpr size_t kMaxAccepted = 8; // of one connection; a server that serves many asks on new ones
    struct Reference {
        uid_t user = 0;
        std::map<std::string, Instant, std::less<>> rightsUntil;
        std::vector<Form> forms; // oldest first; at most three live at a time
        bool busy = false;
        std::vector<Accepted> accepted; // oldest first; of what this connection asked about as a server
    };
    [[nodiscard]] static bool areEqual(const AuthorizationExternalForm& a, const AuthorizationExternalForm& b);
    static uint64_t handleOf(const AuthorizationExternalForm& form);

    const std::chrono::seconds _formLifetime;
    std::map<Id, Reference> _references;
    std::map<uint64_t, Id> _byHandle;
};

} // namespace vnt
