#include <unistd.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "Vantora/SessionFixture_test.h"
#include "platform/base/sys.h"

/// Servers that die or lie, sessions beside each other and across threads.
namespace vnt::test {
namespace {

const std::string kTap = "quillon.server.services.zeltotap";

using FaultsTest = SessionTest;

/// The server goes away before, inside and right after each request of an operation: the call returns, with a sentence
/// where it had something to ask, and a new session can be made.
TEST_F(FaultsTest, ADyingServerNeverHangsAnOperation)
{
    const auto added = [&] { return add(kStackSamplerID); };
    const auto started = [&] { return added() && start(); };
    const auto stopped = [&] { return started() && stop(); };
    struct Row {
        const char* selector;
        std::function<bool()> before;
        std::function<bool()> operation;
    } rows[] = {
        {"versionForCapability:", [] { return true; }, added},
        {"symbolicatorSignatureForPid:trackingSelector:", added, [&] { return start(); }},
        {"suspendPid:", added, [&] { return start(); }},
        {"startTapWithConfiguration:", added, [&] { return start(); }},
        {"resumePid:", added, [&] { return start(); }},
        {"pauseTap", started, [&] { return stop(); }},
        {"unpauseTap", stopped, [&] { return start(); }},
        {"stopTap", stopped, [&] { return save(temporary("dying")); }},
        {"hardwareInformation", stopped, [&] { return save(temporary("dying")); }},
        {"systemInformation", stopped, [&] { return save(temporary("dying")); }},
    };
    const auto disposeQuietly = [&] {
        dispose(); // says what is lost, or nothing
        server.clearTranscript();
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.selector);
        for (const Answer::Kind kind :
             {Answer::Kind::kClose, Answer::Kind::kTornReply, Answer::Kind::kGarbage, Answer::Kind::kOversizedLength,
              Answer::Kind::kWrongId, Answer::Kind::kMalformedObject}) {
            ASSERT_TRUE(create(kTarget)) << lastError();
            ASSERT_TRUE(row.before()) << lastError();
            server.once(row.selector, Answer::of(kind));
            // Taps report what goes wrong with them through the callback, not through the call.
            const bool tap = std::string(row.selector).find("Tap") != std::string::npos;
            const bool result = row.operation();
            EXPECT_TRUE(!result || (tap && lastError().empty())) << static_cast<int>(kind);
            EXPECT_EQ(result, lastError().empty());
            disposeQuietly();
        }
        ASSERT_TRUE(create(kTarget)) << lastError();
        ASSERT_TRUE(row.before()) << lastError();
        server.closeConnections(); // before
        const bool result = row.operation();
        EXPECT_EQ(result, lastError().empty());
        disposeQuietly();

        ASSERT_TRUE(create(kTarget)) << lastError();
        ASSERT_TRUE(row.before() && row.operation()) << lastError();
        server.closeConnections(); // after
        disposeQuietly();
    }
    ASSERT_TRUE(create(kTarget)) << lastError();
    ASSERT_TRUE(stopped()) << lastError();
}

TEST_F(FaultsTest, TwoSessionsRecordBesideEachOther)
{
    struct Side {
        VantoraSession session;
        const char* target;
        std::string path;
    } sides[] = {{nullptr, "4242", temporary("left")}, {nullptr, "4343", temporary("right")}};
    const auto identifier = String::create(kStackSamplerID);
    CFErrorRef error = nullptr;
    for (Side& side : sides) {
        side.session = VantoraCreate(nullptr, toC<CFStringRef>(String::create(side.target).get()), nullptr, &error);
        ASSERT_TRUE(side.session);
        EXPECT_EQ(VantoraGetCurrent(), side.session);
        ASSERT_TRUE(VantoraAddInstrument(side.session, toC<CFStringRef>(identifier.get()), nullptr, nullptr, &error));
    }
    for (Side& side : sides)
        ASSERT_TRUE(VantoraStart(side.session, nullptr, &error));
    EXPECT_TRUE(server.waitFor("call quillon.server.services.processcontrol resumePid: (4343)"));
    for (Side& side : sides) {
        server.once("pauseTap", Answer::object(nullptr).before(Push::data("a batch")));
        ASSERT_TRUE(VantoraStop(side.session, nullptr, &error));
        EXPECT_EQ(VantoraGetCurrent(), side.session);
    }
    // The one goes, with its data unsaved; the other does not notice.
    EXPECT_FALSE(VantoraDispose(sides[0].session, &error));
    (void)Ref<Error>::adopt(fromC<Error>(std::exchange(error, nullptr)));
    EXPECT_EQ(VantoraGetCurrent(), sides[1].session);
    EXPECT_TRUE(VantoraSave(sides[1].session, toC<CFStringRef>(String::create(sides[1].path).get()), &error));
    EXPECT_TRUE(std::filesystem::exists(sides[1].path + ".vnt/quillon.vnt.stacksampler.messagequeue"));
    EXPECT_FALSE(std::filesystem::exists(sides[0].path + ".vnt"));
    EXPECT_TRUE(VantoraDispose(sides[1].session, &error));
    EXPECT_EQ(VantoraGetCurrent(), nullptr);
}

TEST_F(FaultsTest, ASessionCanBeDisposedOfOnAnotherThread)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID) && start());
    std::thread([&] { EXPECT_FALSE(dispose()); }).join();
    EXPECT_EQ(
        lastError(),
        "Vantora: Disposing session before saving profile; startCount of quillon.vnt.stacksampler is 1 while dirty");
    EXPECT_EQ(VantoraGetCurrent(), nullptr);
    EXPECT_TRUE(server.waitFor("hard stop"));
}

/// Queued work holds the session: it ends with that work, not under it.
TEST_F(FaultsTest, DisposingRightBehindASaveLosesNothing)
{
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(create(kTarget));
        ASSERT_TRUE(add(kStackSamplerID) && start());
        server.once("pauseTap", Answer::object(nullptr).before(Push::data("a batch")));
        ASSERT_TRUE(stop() && save(temporary("behind"))) << lastError();
        EXPECT_TRUE(dispose()) << lastError();
        EXPECT_TRUE(server.waitFor("call quillon.server.services.processcontrol stopObservingPid: (4242)"));
        EXPECT_TRUE(server.waitFor("hard stop"));
        server.clearTranscript();
    }
}

/// A peer that never answers is waited for; when it goes, the wait ends.
TEST_F(FaultsTest, ASilentServerIsWaitedForUntilItGoes)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    server.once("suspendPid:", Answer::of(Answer::Kind::kNone));
    std::thread gone([&] {
        EXPECT_TRUE(server.waitFor("call quillon.server.services.processcontrol suspendPid: (4242)"));
        server.closeConnections();
    });
    EXPECT_FALSE(start());
    EXPECT_NE(lastError(), "");
    gone.join();
}

} // namespace
} // namespace vnt::test
