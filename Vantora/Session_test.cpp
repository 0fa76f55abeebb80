#include <unistd.h>

#include "Vantora/SessionFixture_test.h"
#include "platform/base/sys.h"

namespace vnt::test {
namespace {

using Lines = std::vector<std::string>;

TEST_F(SessionTest, CreatingOpensTheServicesAndAsksForTheTarget)
{
    ASSERT_TRUE(create(kTarget)) << lastError();
    EXPECT_EQ(server.transcript(),
              (Lines{"open quillon.server.services.capabilities", "open quillon.server.services.processcontrol",
                     "open quillon.server.services.deviceinfo",
                     "call quillon.server.services.deviceinfo isRunningPid: (4242)"}));
    server.clearTranscript();
    dispose();
    ASSERT_TRUE(server.waitFor("end"));
    EXPECT_EQ(server.transcript(),
              (Lines{"close quillon.server.services.deviceinfo", "close quillon.server.services.processcontrol",
                     "close quillon.server.services.capabilities", "hard stop", "end"}));
    EXPECT_EQ(VantoraGetCurrent(), nullptr);
}

TEST_F(SessionTest, TargetsAreResolvedFromTheString)
{
    const std::string self = std::to_string(::getpid());
    struct Row {
        const char* what;
        const char* target;
        bool running;
        bool created;
        std::string sentence;
        std::string shownPid;
        Lines requests;
    } rows[] = {
        {"none", nullptr, true, false, "Vantora: Missing target process identifier", "", {}},
        {"all processes ask nobody", "-1", true, true, "", "-3", {}},
        {"the kernel", "0", true, true, "", "0", {"call quillon.server.services.deviceinfo isRunningPid: (0)"}},
        {"leading digits",
         "123abc",
         true,
         true,
         "",
         "123",
         {"call quillon.server.services.deviceinfo isRunningPid: (123)"}},
        {"a name fails without a sentence", "abc", true, false, "", "", {}},
        {"empty fails without a sentence", "", true, false, "", "", {}},
        {"negative", "-5", true, false, "Vantora: Invalid target process pid -5", "", {}},
        {"not running",
         "77",
         false,
         false,
         "Vantora: No current process has pid 77",
         "",
         {"call quillon.server.services.deviceinfo isRunningPid: (77)"}},
        {"beyond 32 bits",
         "99999999999",
         false,
         false,
         "Vantora: No current process has pid 99999999999",
         "",
         {"call quillon.server.services.deviceinfo isRunningPid: (2147483647)"}},
        {"the tool without a hint", "-2", true, false, "Unable to determine process to profile", "", {}},
        {"the process itself",
         self.c_str(),
         true,
         true,
         "",
         self,
         {"call quillon.server.services.deviceinfo isRunningPid: (" + self + ")"}},
    };
    for (const Row& row : rows) {
        server.clearTranscript();
        server.on("isRunningPid:", Answer::object(Number::withBool(row.running)));
        EXPECT_EQ(create(row.target) != nullptr, row.created) << row.what;
        EXPECT_EQ(lastError(), row.sentence) << row.what;
        Lines asked = requests();
        std::erase_if(asked, [](const std::string& line) { return !line.starts_with("call"); });
        EXPECT_EQ(asked, row.requests) << row.what;
        if (!row.created)
            continue;
        const auto shown = Ref<String>::adopt(fromC<String>(VantoraGetDeviceTarget(VantoraGetCurrent())));
        EXPECT_EQ(shown->str(), row.shownPid) << row.what;
        EXPECT_EQ(session().selfProfiling(), row.shownPid == self) << row.what;
        dispose();
    }
}

TEST_F(SessionTest, TheToolsAttachOptionFallsBackToNames)
{
    struct Row {
        const char* what;
        const char* hint;
        std::vector<KnownProcess> processes;
        std::string sentence;
        int32_t pid;
        const char* printed;
    } rows[] = {
        {"exact wins over partial", "Viewer", {{"Viewer Agent", 8}, {"Viewer", 7}}, "", 7, ""},
        {"one partial is announced",
         "Agent",
         {{"Viewer Agent", 8}, {nullptr, 9}, {"Viewer", 7}},
         "",
         8,
         "rumbel: Found process 8 ('Viewer Agent') from partial name 'Agent'\n"},
        {"case matters", "viewer", {{"Viewer", 7}}, "There is no process named 'viewer'", 0, ""},
        {"empty", "", {{"Viewer", 7}}, "There is no process named ''", 0, ""},
        {"several exact",
         "sh",
         {{"sh", 5}, {"bash", 6}, {"sh", 4}},
         "There are multiple processes named 'sh'.  Please rerun specifying one of these pids: 5 4",
         0,
         ""},
        {"several partial",
         "sh",
         {{"bash", 6}, {"zsh", 3}},
         "There are multiple processes named similarly to 'sh'.  Please rerun specifying one of these pids: [bash 6] "
         "[zsh 3]",
         0,
         ""},
        {"listed twice counts once", "sh", {{"sh", 5}, {"sh", 5}}, "", 5, ""},
    };
    for (const Row& row : rows) {
        knowProcesses(row.processes);
        testing::internal::CaptureStdout();
        const bool created = create("-2", with(option::kRumbelAttach, String::create(row.hint)));
        std::fflush(stdout);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.printed) << row.what;
        EXPECT_EQ(created, row.sentence.empty()) << row.what;
        EXPECT_EQ(lastError(), row.sentence) << row.what;
        if (created) {
            EXPECT_EQ(session().pid(), row.pid) << row.what;
        }
        dispose();
    }
}

/// A pid that does not run is tried again as a name; the first failure stays recorded, and creating fails with it.
TEST_F(SessionTest, ANumericNameFoundOnlyByNameStillFails)
{
    server.on("isRunningPid:", Answer::object(Number::withBool(false)));
    knowProcesses({{"4711", 12}});
    EXPECT_FALSE(create("-2", with(option::kRumbelAttach, String::create("4711"))));
    EXPECT_EQ(lastError(), "Vantora: No current process has pid 4711");
}

TEST_F(SessionTest, CreationFailuresHaveTheirSentences)
{
    ASSERT_TRUE(create(kTarget));
    const VantoraSession before = VantoraGetCurrent();
    const auto refuse = [&](const char* sentence) {
        CFErrorRef error = nullptr;
        EXPECT_EQ(VantoraCreate(nullptr, toC<CFStringRef>(String::create("-1").get()), nullptr, &error), nullptr);
        const auto owned = Ref<Error>::adopt(fromC<Error>(error));
        ASSERT_TRUE(owned) << sentence;
        EXPECT_TRUE(owned->localizedDescription()->str().starts_with(sentence)) << owned->localizedDescription()->str();
        EXPECT_EQ(VantoraGetCurrent(), before);
    };
    creation->answerStatus(5);
    refuse("Vantora: QuillonServer creation failure: ");
    creation->answerAddress(std::string(2048, 'a'));
    refuse("Vantora: QuillonServer creation failure: ");
    creation->answerAddress("unix:/nowhere/at/all");
    refuse("Vantora: Unable to connect to QuillonServer: ");
    creation->answerAddress("no address");
    refuse("Vantora: Unable to connect to QuillonServer: ");
    creation->dieInsteadOfAnswering();
    refuse("Vantora: QuillonServer creation failure: ");
    creation.reset();
    ::setenv("VANTORA_PROGRAM_DIR", temporary("no-programs-here").c_str(), 1);
    refuse("Vantora: QuillonServer bootstrap failure: ");
}

TEST_F(SessionTest, WithoutASessionEveryFunctionHasItsAnswer)
{
    CFErrorRef error = nullptr;
    const auto sentence = [&] {
        const auto owned = Ref<Error>::adopt(fromC<Error>(std::exchange(error, nullptr)));
        return owned ? owned->localizedDescription()->str() : std::string();
    };
    EXPECT_FALSE(VantoraDispose(nullptr, &error));
    EXPECT_EQ(sentence(), "Vantora: Session not disposed because session was not specified");
    EXPECT_FALSE(VantoraStart(nullptr, nullptr, &error));
    EXPECT_EQ(sentence(), "Vantora: Session not started because session was not specified");
    EXPECT_FALSE(VantoraStop(nullptr, nullptr, &error));
    EXPECT_EQ(sentence(), "Vantora: Session not stopped because session was not specified");
    EXPECT_FALSE(VantoraAddInstrument(nullptr, nullptr, nullptr, nullptr, &error));
    EXPECT_EQ(sentence(), "Vantora: Instrument not added because session or instrumentID were not specified");
    EXPECT_FALSE(VantoraStart(nullptr, nullptr, nullptr));
    EXPECT_TRUE(VantoraSave(nullptr, nullptr, &error));
    EXPECT_TRUE(VantoraIsSaved(nullptr));
    EXPECT_FALSE(VantoraIsRecording(nullptr));
    EXPECT_FALSE(VantoraIsInstrumentAdded(nullptr, nullptr));
    EXPECT_EQ(VantoraGetInstrumentOption(nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(VantoraGetSaveFile(nullptr), nullptr);
    EXPECT_EQ(VantoraGetDeviceID(nullptr), nullptr);
    EXPECT_EQ(Ref<String>::adopt(fromC<String>(VantoraGetDeviceTarget(nullptr)))->str(), "0");
    EXPECT_TRUE(VantoraSuspend(nullptr, nullptr));
    EXPECT_TRUE(VantoraResume(nullptr, nullptr));
    EXPECT_EQ(error, nullptr);
}

TEST_F(SessionTest, OptionsAreCopiedAndKept)
{
    auto options = MutableDictionary::create();
    options->set("key", Number::withInt(1));
    ASSERT_TRUE(create(kTarget, options));
    options->set("key", Number::withInt(2));
    const auto key = String::create("key");
    const auto* value =
        fromC<Number>(VantoraGetInstrumentOption(VantoraGetCurrent(), nullptr, toC<CFStringRef>(key.get())));
    ASSERT_TRUE(value);
    EXPECT_EQ(value->intValue(), 1);
    EXPECT_EQ(fromC<String>(VantoraGetDeviceID(VantoraGetCurrent()))->str(), "UNKNOWN");
    EXPECT_TRUE(VantoraIsSaved(VantoraGetCurrent()));
    EXPECT_FALSE(VantoraIsRecording(VantoraGetCurrent()));
}

TEST_F(SessionTest, SessionsAreNumberedEvenWhenTheyFail)
{
    ASSERT_TRUE(create("-1"));
    const std::string first = session().identifier();
    dispose();
    EXPECT_FALSE(create("abc"));
    EXPECT_EQ(VantoraGetCurrent(), nullptr);
    ASSERT_TRUE(create("-1"));
    EXPECT_EQ(std::stoi(session().identifier().substr(7)), std::stoi(first.substr(7)) + 2);
    EXPECT_TRUE(first.starts_with("Vantora"));
}

TEST_F(SessionTest, TargetNamesComeFromTheServer)
{
    server.on("execnameForPid:", Answer::object(String::create("postgres")));
    ASSERT_TRUE(create(kTarget));
    EXPECT_EQ(session().targetName()->str(), "postgres");
    dispose();
    server.on("execnameForPid:", Answer::object(nullptr));
    ASSERT_TRUE(create("0"));
    EXPECT_EQ(session().targetName()->str(), "mach_kernel");
    dispose();
    ASSERT_TRUE(create("-1"));
    EXPECT_EQ(session().targetName()->str(), "allprocs");
    dispose();
    ASSERT_TRUE(create("-2", with(option::kRumbelLaunch, String::create("/Applications/Foo.app"))));
    EXPECT_EQ(session().targetName()->str(), "Foo");
}

TEST_F(SessionTest, FiftySessionsLeaveNothingBehind)
{
    const auto count = [](const char* path) { return sys::listDirectory(path).take().size(); };
    const auto once = [&] {
        ASSERT_TRUE(create(kTarget));
        ASSERT_TRUE(add(kStackSamplerID));
        ASSERT_TRUE(dispose());
        ASSERT_TRUE(server.waitFor("end"));
        server.clearTranscript();
    };
    once(); // what is made once stays
    // The scripted server, in this process, keeps its end of each connection.
    const size_t descriptors = count("/proc/self/fd") + 50;
    const size_t threads = count("/proc/self/task");
    for (int i = 0; i < 50; ++i)
        once();
    // The peers of this process's own scripted server may be a moment behind, and a thread that has just finished
    // may still be listed: wait for them.
    for (int i = 0; i < 10'000 && (count("/proc/self/task") > threads || count("/proc/self/fd") > descriptors); ++i)
        ::usleep(1000);
    EXPECT_LE(count("/proc/self/fd"), descriptors);
    EXPECT_LE(count("/proc/self/task"), threads);
}

} // namespace
} // namespace vnt::test
