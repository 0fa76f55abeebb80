#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "platform/base/sys.h"
#include "services/authority/AuthorityFixture_test.h"

namespace vnt::test {
namespace {

const Account& ordinary = PrivateAccounts::kOrdinary;
const Account& administrator = PrivateAccounts::kAdministrator;
const Account& primary = PrivateAccounts::kPrimaryAdministrator;
const Account& expired = PrivateAccounts::kExpired;
const Account& root = PrivateAccounts::kRoot;

using CredentialsTest = AuthorityTest;

TEST_F(CredentialsTest, OnlyAnAdministratorsNameAndPasswordOpenARight)
{
    struct Row {
        const char* what;
        const Account& asker;
        Typed typed;
        OSStatus expected;
    };
    const Row rows[] = {
        {"an ordinary user, nothing", ordinary, {}, kNobodyAsked},
        {"an administrator, nothing", administrator, {}, kNobodyAsked},
        {"root, nothing", root, {}, kGranted},
        {"an administrator's own", administrator, typedBy(administrator), kGranted},
        {"an administrator's, typed by another", ordinary, typedBy(administrator), kGranted},
        {"an administrator by primary group", ordinary, typedBy(primary), kGranted},
        {"root's", ordinary, typedBy(root), kGranted},
        {"an ordinary user's own", ordinary, typedBy(ordinary), errAuthorizationDenied},
        {"an account that has expired", ordinary, typedBy(expired), errAuthorizationDenied},
        {"another's password", administrator, {administrator.name, ordinary.password}, errAuthorizationDenied},
        {"the beginning of the password", administrator, {administrator.name, "violet-4"}, errAuthorizationDenied},
        {"no password", administrator, {administrator.name, ""}, errAuthorizationDenied},
        {"no such user", ordinary, {"vnt-nobody-at-all", administrator.password}, errAuthorizationDenied},
        {"no name", expired, {"", administrator.password}, errAuthorizationDenied},
        {"a NUL and more",
         expired,
         {administrator.name, std::string(administrator.password) + '\0' + "x"},
         errAuthorizationDenied},
        {"too long a name", expired, {std::string(256, 'a'), "x"}, errAuthorizationDenied},
        {"too long a password", expired, {administrator.name, std::string(4096, 'p')}, errAuthorizationDenied},
    };
    for (const Row& row : rows) {
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(requestAs(row.asker, kAnalysis, row.typed), row.expected) << row.what;
        // Refusals come at whole seconds, so that the reason cannot be told from the time they take.
        if (row.expected == errAuthorizationDenied) {
            EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1)) << row.what;
        }
    }
    EXPECT_NE(world().log().find("uid 61001: granted quillon.process.analysis by the credentials of root"),
              std::string::npos);
    EXPECT_EQ(world().log().find("vnt-nobody-at-all"), std::string::npos) << "a password may be typed as a name";
}

TEST_F(CredentialsTest, PamRefusesWhatOurOwnServiceFileDoesNotAllow)
{
    const std::string directory = world().directory() + "/pam.d";
    std::ofstream(directory + "/other") << "auth required pam_permit.so\naccount required pam_permit.so\n";
    const std::string good = "auth required pam_unix.so nodelay\naccount required pam_unix.so\n";
    struct Row {
        const char* what;
        std::string text;
        mode_t mode;
        OSStatus expected;
    };
    const Row rows[] = {
        {"no file", "", 0, errAuthorizationDenied},
        {"auth only", "auth required pam_unix.so nodelay\n", 0644, errAuthorizationDenied},
        {"account only", "account required pam_unix.so\n", 0644, errAuthorizationDenied},
        {"commented out", "#auth required pam_unix.so\n" + good.substr(good.find("account")), 0644,
         errAuthorizationDenied},
        {"others may write it", good, 0666, errAuthorizationDenied},
        {"denies", "auth required pam_deny.so\naccount required pam_permit.so\n", 0644, errAuthorizationDenied},
        {"the account is refused", "auth required pam_permit.so\naccount required pam_deny.so\n", 0644,
         errAuthorizationDenied},
        {"good", good, 0644, kGranted},
    };
    for (const Row& row : rows) {
        world().setPamService(row.text);
        (void)::chmod((directory + "/vantora").c_str(), row.mode);
        EXPECT_EQ(requestAs(ordinary, kAnalysis, typedBy(administrator)), row.expected) << row.what;
    }
}

TEST_F(CredentialsTest, ThePackagedServiceFileWorksWithTheMachinesOwnStack)
{
    const auto packaged = sys::readFile(VNT_PACKAGED_PAM_SERVICE, 65536);
    ASSERT_TRUE(packaged.ok());
    for (const char* part : {"common-auth", "common-account"}) {
        const auto text = sys::readFile(std::string("/etc/pam.d/") + part, 65536);
        if (!text.ok())
            GTEST_SKIP() << "needs Debian's /etc/pam.d/" << part;
        std::ofstream(world().directory() + "/pam.d/" + part) << text.value();
    }
    world().setPamService(packaged.value());
    EXPECT_EQ(requestAs(ordinary, kAnalysis, typedBy(administrator)), kGranted);
    EXPECT_EQ(requestAs(ordinary, kAnalysis, {administrator.name, "wrong"}), errAuthorizationDenied);
    EXPECT_EQ(requestAs(ordinary, kAnalysis, typedBy(expired)), errAuthorizationDenied);
}

TEST_F(CredentialsTest, ACredentialServesWhatTheDefinitionsSay)
{
    AuthorizationRef owner = newReference();
    ASSERT_EQ(define(owner, "test.private", {36000, "admin", false, true}), kGranted);
    ASSERT_EQ(define(owner, "test.once", {0, "admin", true, true}), kGranted);
    ASSERT_EQ(define(owner, "test.users", {36000, "vnt-users", true, false}), kGranted);
    ASSERT_EQ(define(owner, "test.nogroup", {36000, nullptr, true, false}), kGranted);
    ASSERT_EQ(define(owner, "test.elsewhere", {36000, "no-such-group", true, true}), kGranted);
    struct Row {
        const char* what;
        const Account& asker;
        std::function<OSStatus()> body;
        OSStatus expected;
    };
    // Requests of one row are made in one login session; the last one counts.
    const Row rows[] = {
        {"shared with another reference and right", ordinary,
         [] {
             return request(newReference(), {kAnalysis}, typedBy(administrator)) == kGranted
                 ? request(newReference(), {kKill})
                 : errAuthorizationInternal;
         },
         kGranted},
        {"not shared when the client does not say so", ordinary,
         [] {
             return request(newReference(), {kAnalysis}, typedBy(administrator, false)) == kGranted
                 ? request(newReference(), {kAnalysis})
                 : errAuthorizationInternal;
         },
         kNobodyAsked},
        {"but it serves every right of its request", ordinary,
         [] {
             return request(newReference(), {kAnalysis, kKill, "test.private"}, typedBy(administrator, false));
         },
         kGranted},
        {"a right that is not shared takes no shared one", ordinary,
         [] {
             return request(newReference(), {kAnalysis}, typedBy(administrator)) == kGranted
                 ? request(newReference(), {"test.private"})
                 : errAuthorizationInternal;
         },
         kNobodyAsked},
        {"a right that is not shared gives none", ordinary,
         [] {
             return request(newReference(), {"test.private"}, typedBy(administrator)) == kGranted
                 ? request(newReference(), {kAnalysis})
                 : errAuthorizationInternal;
         },
         kNobodyAsked},
        {"without a timeout of its own it is used up at once", ordinary,
         [] {
             AuthorizationRef reference = newReference();
             return request(reference, {"test.once"}, typedBy(administrator)) == kGranted
                     && request(reference, {"test.once"}, {}, kHeld) == errAuthorizationDenied
                 ? request(reference, {"test.once"})
                 : errAuthorizationInternal;
         },
         kNobodyAsked},
        {"held by the reference", ordinary,
         [] {
             AuthorizationRef reference = newReference();
             return request(reference, {kAnalysis}, typedBy(administrator, false)) == kGranted
                 ? request(reference, {kAnalysis}, {}, kHeld)
                 : errAuthorizationInternal;
         },
         kGranted},
        {"a group by its own name", ordinary, [] { return request(newReference(), {"test.users"}, typedBy(ordinary)); },
         kGranted},
        {"root is no exception where allow-root is false", root, [] { return request(newReference(), {"test.users"}); },
         kNobodyAsked},
        {"a right of no group is root's", ordinary,
         [] { return request(newReference(), {"test.nogroup"}, typedBy(root)); }, kGranted},
        {"and nobody else's", ordinary,
         [] { return request(newReference(), {"test.nogroup"}, typedBy(administrator)); }, errAuthorizationDenied},
        {"a group that does not exist", ordinary,
         [] { return request(newReference(), {"test.elsewhere"}, typedBy(administrator)); }, errAuthorizationDenied},
        {"an undefined right", ordinary, [] { return request(newReference(), {"test.none"}, typedBy(administrator)); },
         errAuthorizationDenied},
        {"the debug right too", ordinary,
         [] {
             return request(newReference(), {kAnalysis, "system.privilege.taskport.debug"}, typedBy(administrator));
         },
         kGranted},
    };
    for (const Row& row : rows)
        EXPECT_EQ(as(row.asker, row.body), row.expected) << row.what;
    EXPECT_EQ(AuthorizationFree(owner, 0), kGranted);
}

TEST_F(CredentialsTest, ASharedCredentialStaysInItsLoginSessionAndAges)
{
    AuthorizationRef owner = newReference();
    ASSERT_EQ(define(owner, "test.short", {1, "admin", true, true}), kGranted);
    const bool isAudited = sys::readFile("/proc/self/sessionid", 64).take() != "4294967295";
    const OSStatus outcome = as(ordinary, [&]() -> OSStatus {
        AuthorizationRef reference = newReference();
        if (request(reference, {"test.short"}, typedBy(administrator)) != kGranted)
            return -60091;
        // What others are granted by the credential ends with it, not a timeout after they asked.
        AuthorizationRef last = newReference();
        while (request(last, {"test.short"}) == kGranted) {
            AuthorizationRef next = newReference();
            if (request(next, {"test.short"}) != kGranted)
                break;
            (void)AuthorizationFree(std::exchange(last, next), 0);
        }
        if (request(last, {"test.short"}, {}, kHeld) != errAuthorizationDenied)
            return -60095;
        // The grant ends by itself, and the credential no longer serves so short a right, but still a long one.
        if (!eventually([&] { return request(reference, {"test.short"}, {}, kHeld) == errAuthorizationDenied; }))
            return -60092;
        if (request(reference, {"test.short"}) != kNobodyAsked || request(newReference(), {kAnalysis}) != kGranted)
            return -60093;
        const pid_t elsewhere = ::fork();
        if (elsewhere == 0) {
            (void)::setsid();
            ::_exit(isAudited || request(newReference(), {kAnalysis}) == kNobodyAsked ? 0 : 1);
        }
        int status = 1;
        ::waitpid(elsewhere, &status, 0);
        return status == 0 ? kGranted : -60094;
    });
    EXPECT_EQ(outcome, kGranted);
    EXPECT_EQ(requestAs(primary, kAnalysis), kNobodyAsked); // another user
    EXPECT_EQ(AuthorizationFree(owner, 0), kGranted);
}

TEST_F(CredentialsTest, OneCheckAtATimeForEachUserAndNobodyElseWaits)
{
    const std::string block = world().directory() + "/block", script = world().directory() + "/wait.sh";
    std::ofstream(block) << "";
    std::ofstream(script) << "#!/bin/sh\nwhile [ -e " << block << " ]; do sleep 0.02; done\n";
    ::chmod(script.c_str(), 0755);
    world().setPamService("auth required pam_exec.so quiet " + script
                          + "\nauth required pam_unix.so nodelay\naccount required pam_unix.so\n");
    std::vector<pid_t> askers;
    for (const Account* account : {&ordinary, &ordinary, &ordinary, &administrator}) {
        const pid_t child = ::fork();
        if (child == 0)
            ::_exit(requestAs(*account, kAnalysis, typedBy(administrator, false)) == kGranted ? 0 : 1);
        askers.push_back(child);
    }
    EXPECT_TRUE(eventually([] { return helpers().size() == 2; }));
    AuthorizationRef reference = newReference();
    for (int i = 0; i < 1000; ++i) { // while PAM stands still
        ASSERT_EQ(request(reference, {kAnalysis}), kGranted);
        ASSERT_LE(helpers().size(), 2u) << "two checks of one user";
    }
    EXPECT_EQ(requestAs(primary, kAnalysis), kNobodyAsked);
    EXPECT_EQ(::unlink(block.c_str()), 0);
    for (const pid_t child : askers) {
        int status = 1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(AuthorizationFree(reference, 0), kGranted);
}

TEST_F(CredentialsTest, ACheckThatCrashesIsARefusal)
{
    const std::string script = world().directory() + "/crash.sh";
    std::ofstream(script) << "#!/bin/sh\nkill -KILL $PPID\n";
    ::chmod(script.c_str(), 0755);
    world().setPamService("auth required pam_exec.so quiet " + script + "\naccount required pam_permit.so\n");
    EXPECT_EQ(requestAs(ordinary, kAnalysis, typedBy(administrator)), errAuthorizationDenied);
    EXPECT_EQ(requestAs(root, kAnalysis), kGranted);
}

TEST_F(CredentialsTest, PasswordsCannotBeTriedOut)
{
    const OSStatus outcome = as(ordinary, []() -> OSStatus {
        for (int i = 0; i < 10; ++i) { // of a process each: the limit is the user's
            AuthorizationRef reference = newReference();
            if (request(reference, {kAnalysis}, {administrator.name, "guess" + std::to_string(i)})
                != errAuthorizationDenied)
                return -60091;
            (void)AuthorizationFree(reference, 0);
        }
        return request(newReference(), {kAnalysis}, typedBy(administrator));
    });
    EXPECT_EQ(outcome, errAuthorizationDenied) << "the right password, too late";
    EXPECT_NE(world().log().find("too many failures"), std::string::npos);
    EXPECT_EQ(requestAs(administrator, kAnalysis, typedBy(administrator)), kGranted); // another user is not meant
}

TEST_F(CredentialsTest, OnlyRootOrAnAdministratorChangesADefinition)
{
    EXPECT_EQ(as(ordinary,
                 [] {
                     return define(newReference(), kAnalysis, {1, "vnt-users", true, true});
                 }),
              kNobodyAsked);
    // A shared credential was given for something else.
    EXPECT_EQ(as(ordinary,
                 [] {
                     AuthorizationRef reference = newReference();
                     return request(reference, {kAnalysis}, typedBy(administrator)) == kGranted
                         ? define(reference, kAnalysis, {1, "vnt-users", true, true})
                         : errAuthorizationInternal;
                 }),
              kNobodyAsked);
    EXPECT_EQ(requestAs(ordinary, kAnalysis, typedBy(ordinary)), errAuthorizationDenied);
    EXPECT_EQ(requestAs(root, kAnalysis), kGranted);
    EXPECT_EQ(as(root, [] { return define(newReference(), kAnalysis, {36000, "vnt-users", true, true}); }), kGranted);
    EXPECT_EQ(requestAs(ordinary, kAnalysis, typedBy(ordinary)), kGranted);
}

} // namespace
} // namespace vnt::test
