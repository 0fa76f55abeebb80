#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "services/authority/LoginSession.h"
#include "services/authority/RightsDatabase.h"

namespace vnt {

/// A name and password that were found to be right. The password itself is kept nowhere.
struct Credential {
    std::string userName;
    uid_t user = 0;
    std::vector<std::string> groups; ///< of the user, the primary one included
    std::chrono::steady_clock::time_point obtained;

    /// Root, or a member of one of `groups`.
    [[nodiscard]] bool isOneOf(const std::vector<std::string>& groups) const;
};

/// Credentials that serve other references of the same login session. One thread; bounded per user and in all.
class SharedCredentials {
public:
    using Instant = std::chrono::steady_clock::time_point;

    void add(const LoginSession& session, Credential credential);
    /// The newest one that is as young as the rule demands, and of a member of `groups`. Null: none. Valid until the
    /// next call.
    [[nodiscard]] const Credential* find(const LoginSession& session, const RightRule& rule,
                                         const std::vector<std::string>& groups, Instant now) const;
    /// True when nothing is held that any rule could still use.
    [[nodiscard]] bool empty(Instant now);

private:
    std::map<LoginSession, std::vector<Credential>> _held; // oldest first
};

} // namespace vnt
