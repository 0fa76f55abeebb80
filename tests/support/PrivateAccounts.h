#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "platform/base/Status.h"

namespace vnt::test {

/// A person with a name and a password that PAM's pam_unix accepts.
struct Account {
    const char* name;
    const char* password;
    uid_t uid;
    gid_t gid;
};

/// Users of the machine that only this process and its children see: in a mount namespace of its own, copies of
/// /etc/passwd, /etc/shadow and /etc/group stand over the real ones, which are not touched and need no cleaning up.
class PrivateAccounts {
public:
    static constexpr Account kOrdinary{"vnt-ordinary", "carrot-7-Lamp", 61001, 61001};
    static constexpr Account kAdministrator{"vnt-administrator", "violet-4-Stone", 61002, 61001}; ///< by membership
    static constexpr Account kPrimaryAdministrator{"vnt-primary", "marble-9-Rope", 61003, 61010}; ///< by primary group
    static constexpr Account kExpired{"vnt-expired", "violet-4-Stone", 61004, 61010}; ///< an administrator no longer
    static constexpr Account kRoot{"root", "ginger-2-Cloud", 0, 0};
    static constexpr const char* kAdminGroup = "vnt-admins"; ///< 61010

    /// Once per process, which must have one thread; a second call does nothing. Errors: kUnsupported, with what is
    /// needed.
    static Status enter();
    /// Runs `body` in a child that is that user for good; its result is the child's exit status, -1 when it was killed.
    static int runAs(const Account& account, const std::function<int()>& body);
};

} // namespace vnt::test
