#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Vantora/SessionFixture_test.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/base/sys.h"

/// The ways out that end the process, each in a process of its own: this program, started again by the death test.
namespace vnt::test {
namespace {

using testing::AllOf;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::Not;

const std::string kTap = "quillon.server.services.zeltotap";
const std::string kControl = "quillon.server.services.processcontrol";

constexpr char kInterrupted[] = "rumbel: Profiling interrupted...\n";
constexpr char kEnded[] = "rumbel: Target process ended...\n";

void tell(const char* text) { (void)!::write(STDERR_FILENO, text, std::strlen(text)); }

class AsyncStopTest : public SessionTest {
protected:
    AsyncStopTest()
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ::setenv("TSAN_OPTIONS", "report_thread_leaks=0", 1); // the scripted server's, which nobody joins on that way
    }

    /// The library keeps one reference too many on purpose; the list of deliberate leaks knows it by this name.
    [[gnu::noinline]] static void setSaveFile(const std::string& path)
    {
        VantoraSetSaveFile(VantoraGetCurrent(), toC<CFStringRef>(String::create(path).get()));
    }

    /// In the process that is to end: what the library prints comes to where the death test looks.
    static void watchOutput()
    {
        std::fflush(stdout);
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        std::setvbuf(stdout, nullptr, _IONBF, 0);
    }

    /// A session that records its target, as the tool makes it. The server tells when it stops observing.
    void record(const char* path)
    {
        watchOutput();
        server.on("stopObservingPid:", Answer::object(nullptr).running([] { tell("(observing ended)\n"); }));
        if (!create("-2", with(option::kRumbelAttach, String::create(kTarget))) || !add(kStackSamplerID) || !start())
            tell(lastError().c_str());
        server.push(Push::data("a batch", kTap));
        if (path)
            setSaveFile(temporary(path));
    }

    void targetDies() { server.push(Push::callback("pidDiedCallback:", {Number::withInt(kTargetPid)}, kControl)); }

    /// Until the process has ended by another thread's doing.
    [[noreturn]] static void waitForTheEnd()
    {
        for (;;)
            ::pause();
    }
};

/// The output names a bundle that holds both files.
MATCHER(NamesAWholeBundle, "")
{
    const std::string text = arg;
    const size_t at = text.find("rumbel: Session saved at ");
    if (at == std::string::npos)
        return false;
    const size_t start = at + std::string("rumbel: Session saved at ").size();
    const std::string bundle = text.substr(start, text.find('\n', start) - start);
    return bundle.ends_with(".vnt") && std::filesystem::exists(bundle + "/quillon.vnt.stacksampler")
        && std::filesystem::file_size(bundle + "/quillon.vnt.stacksampler.messagequeue") > 0;
}

TEST_F(AsyncStopTest, AnInterruptSavesWhatIsRecorded)
{
    EXPECT_EXIT(
        {
            record("interrupted");
            VantoraAsyncStopAndSave(VantoraGetCurrent());
        },
        ExitedWithCode(0), AllOf(HasSubstr(kInterrupted), NamesAWholeBundle(), Not(HasSubstr("(observing ended)"))));
}

TEST_F(AsyncStopTest, NothingToSaveIsSuccessWithoutAWord)
{
    EXPECT_EXIT(
        {
            watchOutput();
            if (create(kTarget) && add(kStackSamplerID))
                VantoraAsyncStopAndSave(VantoraGetCurrent());
        },
        ExitedWithCode(0), testing::EndsWith(kInterrupted));
}

TEST_F(AsyncStopTest, AFailureIsToldAndIsTheStatus)
{
    EXPECT_EXIT(
        {
            record(nullptr);
            VantoraAsyncStopAndSave(VantoraGetCurrent());
        },
        ExitedWithCode(1),
        HasSubstr(std::string(kInterrupted)
                  + "rumbel error: Failed to save data due to error: Vantora: Save file was not specified\n"));
    EXPECT_EXIT(
        {
            record("half"); // one of two instruments runs, which keeps the stop from succeeding
            if (add(kProcessCensusID))
                VantoraAsyncStopAndSave(VantoraGetCurrent());
        },
        ExitedWithCode(1),
        HasSubstr("rumbel error: Failed to save data due to error: Vantora: Instrument "
                  "quillon.vnt.processcensus stopped before starting\n"));
    EXPECT_EXIT(
        {
            record("server-gone");
            server.closeConnections();
            VantoraAsyncStopAndSave(VantoraGetCurrent());
        },
        ExitedWithCode(1),
        AllOf(HasSubstr(kInterrupted), HasSubstr("rumbel error: Failed to save data due to error: ")));
    EXPECT_EXIT(
        {
            watchOutput();
            if (create(kTarget))
                VantoraAsyncStopAndSave(VantoraGetCurrent());
        },
        ExitedWithCode(1),
        HasSubstr(std::string(kInterrupted)
                  + "rumbel error: Failed to save data because session has already been released\n"));
    EXPECT_DEATH(VantoraAsyncStopAndSave(nullptr),
                 "NO && \"asyncStopSaveAndQuit should not return\".*"
                 "VantoraAsyncStopAndSave");
}

TEST_F(AsyncStopTest, TheTargetsDeathSavesAtAnyMoment)
{
    const auto saved = AllOf(HasSubstr(kEnded), HasSubstr("(observing ended)"), NamesAWholeBundle());
    EXPECT_EXIT(
        {
            record("died");
            targetDies();
            waitForTheEnd();
        },
        ExitedWithCode(0), saved);
    // While the client starts, stops, saves: it waits for its turn.
    EXPECT_EXIT(
        {
            record("died-starting");
            if (!stop())
                tell(lastError().c_str());
            server.once("unpauseTap", Answer::object(nullptr).running([this] { targetDies(); }));
            start();
            waitForTheEnd();
        },
        ExitedWithCode(0), saved);
    EXPECT_EXIT(
        {
            record("died-stopping");
            server.once("pauseTap", Answer::object(nullptr).running([this] { targetDies(); }));
            stop();
            waitForTheEnd();
        },
        ExitedWithCode(0), saved);
    EXPECT_EXIT(
        {
            record("died-saving");
            if (!stop())
                tell(lastError().c_str());
            server.once("systemInformation",
                        Answer::object(with("kernelName", String::create("Linux"))).running([this] { targetDies(); }));
            if (save(temporary("by-hand")))
                tell("saved by hand\n");
            waitForTheEnd();
        },
        ExitedWithCode(0), HasSubstr(kEnded));
}

/// An orphan finder asks nothing of a target that is gone.
TEST_F(AsyncStopTest, ADeadTargetIsNotSearched)
{
    EXPECT_EXIT(
        {
            record("not-searched");
            server.on("requestLeaksForPid:context:provideBacktraces:",
                      Answer::object(nullptr).running([] { tell("(searched)\n"); }));
            server.on("attachToPid:eventsMask:", Answer::object(Number::withBool(true)));
            for (const char* service : {"quillon.server.services.objrecord", "quillon.server.services.remoteorphans"})
                server.once("enableServiceActionCompletedCallback",
                            Answer::of(Answer::Kind::kNone)
                                .before(Push::callback("serviceActionCompleted:",
                                                       {with(kServiceComplete, String::create(service))})));
            if (!add(kOrphanFinderID) || !start())
                tell(lastError().c_str());
            stop({kStackSamplerID}); // nested once by the second start
            targetDies();
            waitForTheEnd();
        },
        ExitedWithCode(0), AllOf(HasSubstr(kEnded), Not(HasSubstr("(searched)")), NamesAWholeBundle()));
}

TEST_F(AsyncStopTest, AServerThatDiesInTheDeathReportIsNoHang)
{
    EXPECT_EXIT(
        {
            record("all-dead");
            server.on("stopObservingPid:", Answer::of(Answer::Kind::kClose));
            targetDies();
            waitForTheEnd();
        },
        ExitedWithCode(1), AllOf(HasSubstr(kEnded), HasSubstr("rumbel error: Failed to save data due to error: ")));
}

TEST_F(AsyncStopTest, ATapWithoutATargetIsAMistakeOfOurs)
{
    ASSERT_TRUE(create("-2", with(option::kRumbelLaunch, String::create("/bin/true"))));
    ASSERT_TRUE(add(kStackSamplerID));
    auto& sampler = static_cast<VntInstrument&>(*session().instruments()->get(kStackSamplerID));
    EXPECT_DEATH(sampler.tapConfiguration(*sampler.ID()), "_parentSession pid. != RqInvalidPidIdentifier");
}

TEST_F(AsyncStopTest, OtherDeathsAreIgnored)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID) && start());
    for (const int32_t pid : {kTargetPid + 1, -3, 0})
        ASSERT_TRUE(server.push(Push::callback("pidDiedCallback:", {Number::withInt(pid)}, kControl)));
    ASSERT_TRUE(server.push(Push::callback("pidDiedCallback:", {}, kControl)));
    ASSERT_TRUE(server.push(Push::callback("pidDiedCallback:", {String::create("4242")}, kControl)));
    ASSERT_TRUE(server.push(
        Push::callback("updatedSymbolicatorNotificationReceived:", {}, "quillon.server.services.deviceinfo")));
    EXPECT_TRUE(stop()) << lastError();
    dispose();
    ASSERT_TRUE(create("-1"));
    ASSERT_TRUE(server.push(Push::callback("pidDiedCallback:", {Number::withInt(-3)}, kControl)));
    ASSERT_TRUE(server.push(Push::callback("pidDiedCallback:", {Number::withInt(4242)}, kControl)));
}

} // namespace
} // namespace vnt::test
