#pragma once

#include <sys/types.h>

#include <cstdint>

#include "platform/authorization/Authorization.h"

namespace vnt {

/// Stands between a session's client and processes that are not the client's own: whatever the worker's own privileges
/// are, a request reaches into such a process only while the client holds the right to. Control thread only.
class AccessGuard {
public:
    /// `form`: what the client presented when the server was created.
    AccessGuard(uid_t client, const AuthorizationExternalForm& form) : _client(client), _form(form) { }
    /// The first check, while the form is fresh: from here on it lives as long as its reference.
    [[nodiscard]] bool open() { return holds(Reach::kAnalyse); }

    enum class Reach {
        kAnalyse, ///< read it, stop it for a while, record it: "quillon.process.analysis"
        kKill, ///< end it: "quillon.process.kill"
    };
    /// Throws the Exception that answers the client unless `pid` is a process of the client's own, with no other user
    /// in any of its ids, or the right is held now: one look at /proc, and for others one question to the authority,
    /// about 0.2 ms. 0 or less is the whole machine. A process that is gone passes: there is nothing to reach.
    void demand(pid_t pid, Reach reach);
    /// As demand() for kAnalyse, but a right that was held within the last second will do: for facts that are asked of
    /// every process in turn. False instead of an exception.
    [[nodiscard]] bool mayLookAt(pid_t pid);

private:
    [[nodiscard]] bool isOwn(pid_t pid) const;
    [[nodiscard]] bool holds(Reach reach);

    const uid_t _client;
    const AuthorizationExternalForm _form;
    AuthorizationChecker _authority;
    uint64_t _analysisHeldNs = 0; ///< when the authority last confirmed it
};

} // namespace vnt
