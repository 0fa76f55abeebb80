#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "Vantora/SessionFixture_test.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/base/sys.h"

namespace vnt::test {
namespace {

using Lines = std::vector<std::string>;

const std::string kTap = "quillon.server.services.zeltotap";
const std::string kControl = "quillon.server.services.processcontrol";
const std::string kDevice = "quillon.server.services.deviceinfo";

Lines withoutTapConfiguration(Lines lines)
{
    for (std::string& line : lines) {
        const size_t at = line.find("startTapWithConfiguration:");
        if (at != std::string::npos)
            line.resize(at + std::string("startTapWithConfiguration:").size());
    }
    return lines;
}

TEST_F(SessionTest, ARecordingIsTheseRequestsInThisOrder)
{
    ASSERT_TRUE(create(kTarget)) << lastError();
    (void)requests();
    ASSERT_TRUE(add(kStackSamplerID)) << lastError();
    EXPECT_EQ(
        requests(),
        (Lines{"open " + kTap, "call quillon.server.services.capabilities versionForCapability: (" + kTap + ")"}));

    ASSERT_TRUE(start()) << lastError();
    EXPECT_TRUE(VantoraIsRecording(VantoraGetCurrent()));
    EXPECT_FALSE(VantoraIsSaved(VantoraGetCurrent()));
    const std::string tracked = ", updatedSymbolicatorNotificationReceived:)";
    EXPECT_EQ(withoutTapConfiguration(requests()),
              (Lines{"call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (0" + tracked,
                     "call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (4242" + tracked,
                     "call " + kControl + " suspendPid: (4242)",
                     "call " + kTap + " startTapWithConfiguration:", "call " + kControl + " resumePid: (4242)"}));

    ASSERT_TRUE(stop()) << lastError();
    EXPECT_EQ(requests(), (Lines{"call " + kTap + " pauseTap ()"}));
    ASSERT_TRUE(start()) << lastError();
    EXPECT_EQ(requests(),
              (Lines{"call " + kControl + " suspendPid: (4242)", "call " + kTap + " unpauseTap ()",
                     "call " + kControl + " resumePid: (4242)"}));
    server.once("pauseTap", Answer::object(nullptr).before(Push::data("batch one")).before(Push::data("batch two")));
    ASSERT_TRUE(stop()) << lastError();
    (void)requests();

    const std::string path = temporary("recording");
    ASSERT_TRUE(save(path)) << lastError();
    ASSERT_TRUE(server.waitFor("call " + kControl + " stopObservingPid: (4242)"));
    const Lines saving = requests();
    const Lines expected{"call " + kTap + " stopTap ()", "call " + kDevice + " hardwareInformation ()",
                         "call " + kDevice + " systemInformation ()",
                         "call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (0, <null>)",
                         "call " + kDevice + " symbolicatorSignatureForPid:trackingSelector: (4242, <null>)"};
    // The end of observing is queued beside the save: its place is not promised.
    Lines inOrder = saving;
    std::erase(inOrder, "call " + kControl + " stopObservingPid: (4242)");
    EXPECT_EQ(inOrder, expected);
    EXPECT_TRUE(VantoraIsSaved(VantoraGetCurrent()));
    EXPECT_EQ(fromC<String>(VantoraGetSaveFile(VantoraGetCurrent()))->str(), path + ".vnt");
    EXPECT_TRUE(std::filesystem::exists(path + ".vnt/quillon.vnt.stacksampler"));
    EXPECT_TRUE(std::filesystem::exists(path + ".vnt/quillon.vnt.stacksampler.messagequeue"));
}

TEST_F(SessionTest, AddingRefusesWhatCannotBe)
{
    ASSERT_TRUE(create("-1"));
    struct Row {
        std::string_view instrument;
        const char* sentence;
    } rows[] = {
        {kHeapRecorderID, "Vantora: Heap Recorder does not support profiling all processes"},
        {kOrphanFinderID, "Vantora: Heap Recorder does not support profiling all processes"},
        {"quillon.vnt.nothing", "Vantora: No instrument added, unknown id quillon.vnt.nothing"},
    };
    for (const Row& row : rows) {
        EXPECT_FALSE(add(row.instrument));
        EXPECT_EQ(lastError(), row.sentence);
    }
    EXPECT_TRUE(add(kProcessCensusID)) << lastError();
    EXPECT_TRUE(add(kKernelTracerID)) << lastError();
}

TEST_F(SessionTest, TheLeakFinderBringsItsRecorder)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kOrphanFinderID)) << lastError();
    const auto added = [](std::string_view identifier) {
        return VantoraIsInstrumentAdded(VantoraGetCurrent(), toC<CFStringRef>(String::create(identifier).get()));
    };
    EXPECT_TRUE(added(kHeapRecorderID));
    EXPECT_TRUE(added(kOrphanFinderID));
    EXPECT_FALSE(added(kStackSamplerID));
    // What the addition asks for is overruled by the session's options.
    const auto& recorder = static_cast<VntInstrument&>(*session().instruments()->get(kHeapRecorderID));
    EXPECT_FALSE(recorder.options()->get<Number>(option::kReferenceCounting)->boolValue());
}

TEST_F(SessionTest, StartAndStopCheckTheirInstrumentsFirst)
{
    ASSERT_TRUE(create(kTarget));
    EXPECT_FALSE(start());
    EXPECT_EQ(lastError(), "Vantora: Start requested but no instruments have been added");
    EXPECT_FALSE(stop());
    EXPECT_EQ(lastError(), "Vantora: Stop requested but no instruments have been added");
    ASSERT_TRUE(add(kStackSamplerID));
    (void)requests();
    EXPECT_FALSE(start({kStackSamplerID, kKernelTracerID}));
    EXPECT_EQ(lastError(), "Vantora: Cannot start Kernel Tracer instrument without adding it");
    EXPECT_FALSE(stop({"strange"}));
    EXPECT_EQ(lastError(), "Vantora: Cannot stop strange instrument without adding it");
    EXPECT_FALSE(stop());
    EXPECT_EQ(lastError(), "Vantora: Instrument quillon.vnt.stacksampler stopped before starting");
    EXPECT_EQ(requests(), Lines{});
}

TEST_F(SessionTest, StartsNest)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    ASSERT_TRUE(start());
    ASSERT_TRUE(start());
    ASSERT_TRUE(stop());
    EXPECT_TRUE(VantoraIsRecording(VantoraGetCurrent()));
    (void)requests();
    ASSERT_TRUE(stop());
    EXPECT_FALSE(VantoraIsRecording(VantoraGetCurrent()));
    EXPECT_EQ(requests(), (Lines{"call " + kTap + " pauseTap ()"}));
}

TEST_F(SessionTest, SavingFailsWithItsSentences)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    EXPECT_FALSE(save(temporary("never-started")));
    EXPECT_EQ(lastError(), "Vantora: Instrument quillon.vnt.stacksampler not saved [startCount 0 and not dirty]");
    ASSERT_TRUE(start());
    CFErrorRef recorded = nullptr;
    session().setErrorAddress(&recorded);
    EXPECT_FALSE(session().endRecording());
    EXPECT_EQ(Ref<Error>::adopt(fromC<Error>(recorded))->localizedDescription()->str(),
              "Vantora: Instrument quillon.vnt.stacksampler not saved [startCount 1 and dirty]");
    ASSERT_TRUE(stop());
    server.on("hardwareInformation", Answer::object(nullptr));
    ASSERT_FALSE(save(temporary("no-device")));
    EXPECT_EQ(lastError(), "Vantora: Failed to determine device information; Stack Sampler data not saved");

    ASSERT_TRUE(start());
    ASSERT_TRUE(stop());
    const std::string file = temporary("file");
    ASSERT_TRUE(sys::writeFileAtomically(file, {}, 0600).ok());
    EXPECT_FALSE(save(file + "/below"));
    EXPECT_TRUE(lastError().starts_with("Vantora: Unable to write to " + file + "/below.vnt because ")) << lastError();
    EXPECT_EQ(fromC<String>(VantoraGetSaveFile(VantoraGetCurrent()))->str(), file + "/below.vnt");
    // The lock stays with this thread: it goes on.
    EXPECT_TRUE(start()) << lastError();
    EXPECT_TRUE(stop());
    EXPECT_FALSE(dispose());
    EXPECT_EQ(
        lastError(),
        "Vantora: Disposing session before saving profile; startCount of quillon.vnt.stacksampler is 0 while dirty");
}

TEST_F(SessionTest, NothingRecordedIsAWarningNotAFailure)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    ASSERT_TRUE(start());
    ASSERT_TRUE(stop());
    testing::internal::CaptureStderr();
    const std::string path = temporary("empty");
    EXPECT_TRUE(save(path)) << lastError();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Vantora warning: Stack Sampler instrument did not collect any events.\n");
    EXPECT_TRUE(std::filesystem::is_empty(path + ".vnt"));
}

TEST_F(SessionTest, SamplerOptionsAreNormalised)
{
    struct Row {
        const char* what;
        int64_t interval; // -1: absent
        int32_t word;
        uint64_t effectiveInterval;
        int warnedAbout; // 0: no warning
    } rows[] = {
        {"defaults", -1, 0, 40, 0},           {"all thread states", -1, 4, 10000, 0},
        {"too short is kept", 20, 0, 20, 40}, {"too short for all states", 5000, 4, 5000, 10000},
        {"long enough", 40, 0, 40, 0},        {"low 32 bits", (int64_t{1} << 32) + 50, 0, 50, 0},
    };
    for (const Row& row : rows) {
        ASSERT_TRUE(create(kTarget));
        auto options = MutableDictionary::create();
        if (row.interval >= 0)
            options->set(option::kSamplingInterval, Number::withInt64(row.interval));
        options->set(option::kStackSamplerOptions, Number::withInt(row.word));
        options->set(option::kOutputRate, Number::withInt(7));
        testing::internal::CaptureStderr();
        ASSERT_TRUE(add(kStackSamplerID, options));
        const std::string warning = testing::internal::GetCapturedStderr();
        EXPECT_EQ(warning.empty(), row.warnedAbout == 0) << row.what;
        EXPECT_NE(warning.find(row.warnedAbout ? std::to_string(row.warnedAbout) + " microseconds" : ""),
                  std::string::npos);
        const auto& sampler = static_cast<VntInstrument&>(*session().instruments()->get(kStackSamplerID));
        EXPECT_EQ(sampler.options()->get<Number>(option::kSamplingInterval)->uint64Value(), row.effectiveInterval)
            << row.what;
        EXPECT_EQ(sampler.options()->get<Number>(option::kOutputRate)->intValue(), 0) << row.what;
        dispose();
    }
}

TEST_F(SessionTest, TapsAreConfiguredFromOptionsAndTarget)
{
    struct Row {
        const char* what;
        const char* target;
        int32_t word;
        int32_t window;
        std::vector<uint32_t> states;
        std::vector<int32_t> stacks;
    } rows[] = {
        {"user stacks", kTarget, 0, 0, {0x400000, 1}, {1, 0}}, {"kernel stacks", kTarget, 1, 0, {0x400000, 1}, {0, 1}},
        {"both, any state", kTarget, 6, 0, {0x10001}, {1, 1}}, {"3 is as 0", kTarget, 3, 10, {0x400000, 1}, {1, 0}},
        {"all processes", "-1", 0, 0, {0x400000, 1}, {1, 0}},
    };
    for (const Row& row : rows) {
        ASSERT_TRUE(create(row.target));
        auto options = MutableDictionary::create();
        options->set(option::kSamplingInterval, Number::withInt(12000));
        options->set(option::kStackSamplerOptions, Number::withInt(row.word));
        options->set(option::kWindowLimit, Number::withInt(row.window));
        ASSERT_TRUE(add(kStackSamplerID, options));
        auto& sampler = static_cast<VntInstrument&>(*session().instruments()->get(kStackSamplerID));
        const auto tap = sampler.tapConfiguration(*sampler.ID());
        const KxZeltoTriggerConfig& trigger = *tap->triggers().at(0);
        EXPECT_EQ(trigger.kind(), 1) << row.what;
        EXPECT_EQ(trigger.isAllProcesses(), std::string(row.target) == "-1") << row.what;
        EXPECT_EQ(trigger.pids(), trigger.isAllProcesses() ? std::vector<int32_t>{} : std::vector<int32_t>{kTargetPid});
        EXPECT_EQ(trigger.sampleInterval().count, 12000u);
        EXPECT_EQ(trigger.sampleInterval().scale, 1000u);
        EXPECT_EQ(trigger.threadStates(), row.states) << row.what;
        ASSERT_EQ(trigger.actions().size(), 3u) << row.what;
        EXPECT_EQ(trigger.actions()[0].arguments, row.stacks) << row.what;
        EXPECT_EQ((std::vector{trigger.actions()[0].code, trigger.actions()[1].code, trigger.actions()[2].code}),
                  (std::vector{1, 2, 0}));
        EXPECT_EQ(tap->bufferMode(), row.window ? 2 : 1) << row.what;
        EXPECT_EQ(trigger.frameDepth(), 0) << row.what;
        dispose();
    }
}

TEST_F(SessionTest, AWindowedTracerHasAFrameDepth)
{
    ASSERT_TRUE(create("-1"));
    ASSERT_TRUE(add(kKernelTracerID, with(option::kWindowLimit, Number::withInt(10))));
    auto& tracer = static_cast<VntInstrument&>(*session().instruments()->get(kKernelTracerID));
    const auto tap = tracer.tapConfiguration(*tracer.ID());
    const KxZeltoTriggerConfig& trigger = *tap->triggers().at(0);
    EXPECT_EQ(trigger.kind(), 3);
    EXPECT_EQ(trigger.frameDepth(), 50);
    EXPECT_EQ(tap->windowSize().count, 10u);
    EXPECT_EQ(tap->windowSize().scale, 1000000000u);
    std::vector<int32_t> actions;
    for (const auto& action : trigger.actions())
        actions.push_back(action.code);
    EXPECT_EQ(actions, (std::vector<int32_t>{3, 1, 2, 0}));
    ASSERT_TRUE(trigger.kdebugFilter());
}

/// The server answers what a real one would: it lets the launched program go, and ends it.
TEST_F(SessionTest, LaunchingPreparesStartsAndKills)
{
    server.on("preparedEnvironmentForLaunch:eventsMask:", Answer::object(nullptr));
    ::setenv("DYLD_INSERT_LIBRARIES", "/opt/a.dylib:/x/libobjinject.dylib", 1);
    ::setenv("MallocStackLogging", "yes", 1);
    auto options = MutableDictionary::create();
    options->set(option::kRumbelLaunch, String::create("/bin/sleep"));
    options->set(option::kRumbelLaunchArgs, Array::create({Number::withInt(600)}));
    options->set(option::kEnableZombies, Number::withBool(true));
    ASSERT_TRUE(create("-2", options)) << lastError();
    EXPECT_EQ(session().pid(), RqInvalidPidIdentifier);
    ASSERT_TRUE(add(kHeapRecorderID)) << lastError();
    (void)requests();
    ASSERT_TRUE(start()) << lastError();
    const pid_t pid = session().pid();
    ASSERT_GT(pid, 0);
    const std::string proc = "/proc/" + std::to_string(pid);
    const std::string environment = '\0' + sys::readFile(proc + "/environ", 1u << 20).take();
    const auto has = [&](const std::string& entry) {
        return environment.find('\0' + entry + '\0') != std::string::npos;
    };
    EXPECT_TRUE(has("USER=root"));
    EXPECT_TRUE(has("NSZombieEnabled=YES"));
    EXPECT_TRUE(has("HIPreventRefEncoding=1"));
    EXPECT_TRUE(has("DYLD_INSERT_LIBRARIES=/opt/a.dylib"));
    EXPECT_EQ(environment.find("MallocStackLogging"), std::string::npos);
    EXPECT_EQ(sys::readFile(proc + "/cmdline", 100).take(),
              std::string("/bin/sleep\0"
                          "600\0",
                          15));
    EXPECT_NE(sys::readFile(proc + "/stat", 4096).take().find(") T "), std::string::npos) << "not suspended";
    EXPECT_EQ(::getpgid(pid), pid);
    const Lines made = requests();
    const std::string shown = std::to_string(pid);
    EXPECT_EQ(std::count(made.begin(), made.end(), "call " + kControl + " startObservingPid: (" + shown + ")"), 1);
    EXPECT_EQ(std::count(made.begin(), made.end(), "call " + kControl + " suspendPid: (" + shown + ")"), 0);
    EXPECT_EQ(made.back(), "call " + kControl + " resumePid: (" + shown + ")");

    CFErrorRef recorded = nullptr;
    session().setErrorAddress(&recorded); // the public call's own variable is gone
    EXPECT_EQ(session().launchTarget(*Array::create()), RqInvalidPidIdentifier);
    EXPECT_EQ(Ref<Error>::adopt(fromC<Error>(recorded))->localizedDescription()->str(),
              "Vantora: Cannot launch target more than once");
    ASSERT_TRUE(stop()) << lastError();
    server.on("killPid:", Answer::object(nullptr).running([pid] { ::kill(pid, SIGKILL); }));
    server.push(Push::callback(
        "serviceActionCompleted:",
        {with("quillon.server.services.status.complete", String::create("quillon.server.services.objrecord"))},
        "quillon.server.services.objrecord"));
    (void)save(temporary("launched"));
    EXPECT_TRUE(server.waitFor("call " + kControl + " killPid: (" + shown + ")"));
    // The library reaps its child; here it only has to be gone.
    for (int i = 0; i < 10'000 && ::kill(pid, 0) == 0; ++i)
        ::usleep(1000);
    EXPECT_NE(::kill(pid, 0), 0);
    ::unsetenv("DYLD_INSERT_LIBRARIES");
    ::unsetenv("MallocStackLogging");
}

TEST_F(SessionTest, LaunchFailuresHaveTheirSentences)
{
    ASSERT_TRUE(create("-2", with(option::kRumbelLaunch, String::create("/no/such/program"))));
    ASSERT_TRUE(add(kStackSamplerID));
    EXPECT_FALSE(start());
    EXPECT_EQ(lastError(),
              "Vantora: Failed to launch '/no/such/program' due to "
              "Vantora: posix_spawn failed to launch '/no/such/program'");
    dispose();
    ASSERT_TRUE(create("-2", with(option::kRumbelLaunch, String::create("/etc"))));
    ASSERT_TRUE(add(kStackSamplerID));
    EXPECT_FALSE(start());
    EXPECT_EQ(lastError(), "Vantora: Failed to launch '/etc' due to Vantora: posix_spawn failed to launch '(null)'");
}

TEST_F(SessionTest, MissingSignaturesEndTheStart)
{
    server.on("symbolicatorSignatureForPid:trackingSelector:", Answer::object(nullptr));
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID));
    EXPECT_FALSE(start());
    EXPECT_EQ(lastError(), "Vantora: Failed to create symbolicators");
}

Mutex callbackLock;
std::vector<std::string> callbackErrors VNT_GUARDED_BY(callbackLock);
void rememberError(CFStringRef service, CFErrorRef error)
{
    MutexLock guard(callbackLock);
    callbackErrors.push_back(fromC<String>(service)->str() + ": " + fromC<Error>(error)->localizedDescription()->str());
}

std::vector<std::string> rememberedErrors()
{
    MutexLock guard(callbackLock);
    return callbackErrors;
}

TEST_F(SessionTest, ServiceErrorsReachTheInstrumentsCallback)
{
    ASSERT_TRUE(create(kTarget));
    ASSERT_TRUE(add(kStackSamplerID, nullptr, rememberError));
    server.on("startTapWithConfiguration:", Answer::exception("VntTapError", "perf events are forbidden"));
    EXPECT_TRUE(start()) << lastError(); // the failure is the service's to tell
    for (int i = 0; i < 10'000 && rememberedErrors().empty(); ++i)
        ::usleep(1000);
    EXPECT_EQ(rememberedErrors(), Lines{kTap + ": perf events are forbidden"});
}

} // namespace
} // namespace vnt::test
