#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/authorization/Authorization.h"
#include "tests/support/PrivateAccounts.h"
#include "tests/support/PrivateAuthority.h"

namespace vnt::test {

inline constexpr const char* kAnalysis = "quillon.process.analysis";
inline constexpr const char* kKill = "quillon.process.kill";
inline constexpr OSStatus kGranted = errAuthorizationSuccess;
inline constexpr OSStatus kNobodyAsked = errAuthorizationInteractionNotAllowed;
inline constexpr AuthorizationFlags kHeld = kAuthorizationFlagDefaults;
inline constexpr AuthorizationFlags kQuiet = kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;
inline constexpr AuthorizationFlags kAsking = kQuiet | kAuthorizationFlagInteractionAllowed;

/// What a request sends along.
struct Typed {
    std::string name, password; ///< both empty: nothing
    bool shared = true;
    std::string prompt = {};
};
inline Typed typedBy(const Account& account, bool shared = true)
{
    return {account.name, account.password, shared, ""};
}

AuthorizationRef newReference();
OSStatus request(AuthorizationRef reference, std::vector<const char*> rights, const Typed& typed = {},
                 AuthorizationFlags flags = kQuiet);

struct Definition {
    int timeoutSec = 36000;
    const char* group = "admin"; ///< null: none
    bool shared = true, allowRoot = true;
};
OSStatus define(AuthorizationRef reference, const char* right, const Definition& definition);

/// The system's authority with users and a PAM stack of the test's own. Skipped where that cannot be.
class AuthorityTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { _world.reset(); }
    /// More of the command line; for the next authority.
    void restartWith(const std::string& options);
    /// Runs `body` in a child that is that user, in a session without a terminal.
    static OSStatus as(const Account& account, const std::function<OSStatus()>& body);
    /// One request of that user with a reference of its own.
    static OSStatus requestAs(const Account& account, const char* right, const Typed& typed = {},
                              AuthorizationFlags flags = kQuiet)
    {
        return as(account, [&] { return request(newReference(), {right}, typed, flags); });
    }
    PrivateAuthority& world() { return *_world; }
    /// The processes under the authority.
    static std::vector<pid_t> helpers();
    /// Waits for a condition; false after a long time.
    static bool eventually(const std::function<bool()>& condition);

private:
    std::optional<PrivateAuthority> _world;
};

} // namespace vnt::test
