// The parts that need neither root nor another process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "platform/base/sys.h"
#include "services/authority/Configuration.h"
#include "services/authority/FailureLimit.h"
#include "services/authority/LoginSession.h"
#include "services/authority/SharedCredentials.h"
#include "services/authority/helper_messages.h"

namespace vnt {
namespace {

using Instant = std::chrono::steady_clock::time_point;
using Strings = std::vector<std::string>;
using std::chrono::minutes;
using std::chrono::seconds;
const Instant kStart = Instant() + std::chrono::hours(1000);

TEST(AuthorityConfiguration, LinesAreReadOrRefused)
{
    const Strings standard{"sudo", "wheel", "admin"};
    struct Row {
        const char* text;
        bool isGood;
        Strings groups;
        const char* pinentry;
    };
    const Row rows[] = {
        {"", true, standard, "/usr/bin/pinentry"},
        {"# admin-groups = a\n\n", true, standard, "/usr/bin/pinentry"},
        {"admin-groups = a b  c # d\n", true, {"a", "b", "c"}, "/usr/bin/pinentry"},
        {"  admin-groups=a\r\npinentry = none", true, {"a"}, ""},
        {"admin-groups =\npinentry=/opt/ask me\n", true, {}, "/opt/ask me"},
        {"admin-groups\n", false, {}, ""},
        {"pinentry = ask\n", false, {}, ""},
        {"pinentry =\n", false, {}, ""},
        {"administrators = a\n", false, {}, ""},
        {"= a\n", false, {}, ""},
    };
    char path[] = "/tmp/vnt-conf.XXXXXX";
    const UniqueFd file(::mkstemp(path));
    for (const Row& row : rows) {
        std::ofstream(path) << row.text;
        const auto read = AuthorityConfiguration::load(path);
        EXPECT_EQ(read.ok(), row.isGood) << row.text;
        if (!read.ok())
            continue;
        EXPECT_EQ(read.value().groupsFor("admin"), row.groups) << row.text;
        EXPECT_EQ(read.value().pinentry, row.pinentry) << row.text;
    }
    ::unlink(path);
    const auto absent = AuthorityConfiguration::load(path);
    ASSERT_TRUE(absent.ok());
    EXPECT_EQ(absent.value().groupsFor("admin"), standard);
    EXPECT_EQ(absent.value().groupsFor("video"), Strings{"video"});
    EXPECT_EQ(absent.value().groupsFor(""), Strings{});
}

TEST(FailureLimit, CountsEachUserWithinItsWindow)
{
    FailureLimit limit;
    for (size_t i = 0; i < FailureLimit::kMost; ++i) {
        EXPECT_FALSE(limit.isReached(1000, kStart + seconds(i)));
        limit.note(1000, kStart + seconds(i));
    }
    EXPECT_TRUE(limit.isReached(1000, kStart + seconds(20)));
    EXPECT_FALSE(limit.isReached(1001, kStart + seconds(20)));
    EXPECT_FALSE(limit.empty(kStart + seconds(20)));
    EXPECT_TRUE(limit.isReached(1000, kStart + minutes(10) - seconds(1)));
    EXPECT_FALSE(limit.isReached(1000, kStart + minutes(10))); // the first no longer counts
    EXPECT_TRUE(limit.empty(kStart + minutes(11)));
    for (uid_t user = 0; user < 5000; ++user)
        limit.note(user, kStart);
    EXPECT_TRUE(limit.isReached(100'000, kStart + seconds(1))) << "one person has many numbers";
    EXPECT_FALSE(limit.isReached(100'000, kStart + minutes(10)));
}

LoginSession sessionOf(uid_t user, uint64_t id)
{
    LoginSession session;
    session.user = user;
    session.id = id;
    return session;
}

TEST(SharedCredentials, AreFoundByTheirOwnSessionForYoungEnoughRules)
{
    SharedCredentials held;
    const LoginSession session = sessionOf(1000, 7);
    held.add(session, {"ann", 1, {"wheel"}, kStart});
    const RightRule rule{seconds(100), "admin", true, true};
    RightRule unshared = rule, endless = rule;
    unshared.shared = false;
    endless.timeout.reset();
    struct Row {
        const char* what;
        LoginSession session;
        RightRule rule;
        Strings groups;
        Instant now;
        bool isFound;
    };
    LoginSession reused = session, audited = session;
    reused.leaderStart = 5;
    audited.isAudited = true;
    const Row rows[] = {
        {"just so", session, rule, {"sudo", "wheel"}, kStart + seconds(99), true},
        {"too old", session, rule, {"wheel"}, kStart + seconds(100), false},
        {"another group", session, rule, {"sudo"}, kStart, false},
        {"no group", session, rule, {}, kStart, false},
        {"the right is not shared", session, unshared, {"wheel"}, kStart, false},
        {"another user", sessionOf(1001, 7), rule, {"wheel"}, kStart, false},
        {"another session", sessionOf(1000, 8), rule, {"wheel"}, kStart, false},
        {"the session's number used again", reused, rule, {"wheel"}, kStart, false},
        {"an audit session of the same number", audited, rule, {"wheel"}, kStart, false},
        {"no timeout", session, endless, {"wheel"}, kStart + std::chrono::hours(23), true},
        {"no timeout, a day later", session, endless, {"wheel"}, kStart + std::chrono::hours(24), false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(held.find(row.session, row.rule, row.groups, row.now) != nullptr, row.isFound) << row.what;
    held.add(session, {"root", 0, {}, kStart});
    EXPECT_EQ(held.find(session, rule, {}, kStart)->userName, "root"); // root is in every group
    held.add(sessionOf(1002, 0), {"ann", 1, {"wheel"}, kStart}); // a process that was gone
    EXPECT_EQ(held.find(sessionOf(1002, 0), rule, {"wheel"}, kStart), nullptr);
    EXPECT_FALSE(held.empty(kStart));
    EXPECT_TRUE(held.empty(kStart + std::chrono::hours(24)));
}

TEST(SharedCredentials, OneUserPushesOutOnlyItsOwnOldest)
{
    SharedCredentials held;
    const RightRule rule{seconds(36000), "admin", true, true};
    held.add(sessionOf(2000, 1), {"bob", 2, {"wheel"}, kStart - seconds(10)});
    for (uint64_t id = 1; id <= 100; ++id)
        held.add(sessionOf(1000, id), {"ann", 1, {"wheel"}, kStart + seconds(id)});
    EXPECT_NE(held.find(sessionOf(2000, 1), rule, {"wheel"}, kStart), nullptr);
    EXPECT_NE(held.find(sessionOf(1000, 100), rule, {"wheel"}, kStart), nullptr);
    EXPECT_EQ(held.find(sessionOf(1000, 1), rule, {"wheel"}, kStart), nullptr);
    for (uid_t user = 1; user <= 50; ++user) // many people's in one session
        held.add(sessionOf(1000, 100), {"u", user, {"g" + std::to_string(user)}, kStart});
    EXPECT_EQ(held.find(sessionOf(1000, 100), rule, {"g1"}, kStart), nullptr);
    EXPECT_NE(held.find(sessionOf(1000, 100), rule, {"g50"}, kStart), nullptr);
}

TEST(LoginSession, IsThatOfTheProcess)
{
    sys::PeerCredentials self{::getpid(), ::getuid(), ::getgid()};
    const LoginSession session = LoginSession::of(self);
    EXPECT_TRUE(session.isKnown());
    // In a container the session's leader may be outside, with no number here.
    const pid_t own = ::getsid(0) != 0 ? ::getsid(0) : ::getpid();
    EXPECT_TRUE(session.isAudited || session.id == static_cast<uint64_t>(own));
    self.pid = 0x3fffffff; // above every pid
    EXPECT_FALSE(LoginSession::of(self).isKnown());
}

TEST(HelperMessages, ADamagedResultIsNoResult)
{
    CheckResult result;
    result.isGranted = true;
    result.userName = "ann";
    result.groups = {"wheel", "users"};
    ByteWriter writer;
    result.write(writer);
    const auto whole = writer.view();
    ByteCursor good(whole);
    const CheckResult read = CheckResult::read(good);
    EXPECT_TRUE(good.atEnd() && read.isGranted && read.groups == result.groups && read.userName == "ann");
    for (size_t length = 0; length < whole.size(); ++length) {
        ByteCursor cut(whole.first(length));
        (void)CheckResult::read(cut);
        EXPECT_FALSE(cut.atEnd()) << length;
    }
    ByteWriter lying;
    lying.little(uint8_t{1});
    lying.text("ann");
    lying.little(uint32_t{0});
    lying.little(uint32_t{0xffffffff});
    ByteCursor cursor(lying.view());
    (void)CheckResult::read(cursor);
    EXPECT_FALSE(cursor.atEnd());
}

} // namespace
} // namespace vnt
