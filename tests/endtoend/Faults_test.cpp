#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"
#include "tests/support/CreationPort.h"
#include "tests/support/ScriptedServer.h"

namespace vnt::test {
namespace {

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

size_t spoolCount()
{
    const auto names = sys::listDirectory(sys::environmentOr("XDG_STATE_HOME", "") + "/vantora/spool");
    return names.ok() ? names.value().size() : 0;
}

/// Processes whose command line holds `text`.
std::vector<pid_t> processesWith(const std::string& text)
{
    std::vector<pid_t> found;
    const auto names = sys::listDirectory("/proc");
    for (const std::string& name : names.ok() ? names.value() : std::vector<std::string>()) {
        const pid_t pid = std::atoi(name.c_str());
        if (pid <= 0 || pid == ::getpid())
            continue;
        const auto line = sys::readFile("/proc/" + name + "/cmdline", 1u << 20);
        if (line.ok() && line.value().find(text) != std::string::npos)
            found.push_back(pid);
    }
    return found;
}

TEST(Faults, EachHasItsSentenceAndAFailingStatus)
{
    const std::string file = place("plain-file");
    const std::string empty = place("no-programs");
    ASSERT_TRUE(sys::writeFileAtomically(file, {}, 0644).ok());
    ASSERT_TRUE(sys::makeDirectories(empty, 0755).ok());
    struct Row {
        const char* what;
        std::vector<std::string> arguments;
        std::vector<std::string> environment;
        int status;
        std::string sentence;
    } rows[] = {
        {"unknown pid", {"record", "-p", "2147483"}, {}, 1, "There is no process named '2147483'"},
        {"unknown name", {"record", "-n", "no such process"}, {}, 1, "There is no process named 'no such process'"},
        {"no such program", {"record", "--", "/no/such/program"}, {}, 1, "/no/such/program: No such file or directory"},
        {"not executable", {"record", "--", file}, {}, 1, file + ": Permission denied"},
        {"not a program", {"record", "--", VNT_SOURCE "/README.md"}, {}, 1, "Permission denied"},
        {"unknown instrument",
         {"record", "-i", "nothing", "--", "/bin/true"},
         {},
         1,
         "Vantora: No instrument added, unknown id quillon.vnt.nothing"},
        {"output below a file", {"record", "-o", file + "/out", "--", "/bin/true"}, {}, 1, "cannot save there"},
        {"output on a full device", {"record", "-o", "/proc/out", "--", "/bin/true"}, {}, 1, "cannot save there"},
        {"server not to be started",
         {"record", "--", "/bin/true"},
         {"VANTORA_PROGRAM_DIR=" + empty, "VANTORA_BOOTSTRAP_DIR=" + place("b2"),
          "VANTORA_SYSTEM_BOOTSTRAP_DIR=" + place("b2")},
         1,
         "Vantora: QuillonServer bootstrap failure: "},
        {"no target", {"record"}, {}, 2, ""},
        {"two targets", {"record", "-a", "-p", "1"}, {}, 2, ""},
        {"unknown option", {"record", "--nothing", "--", "/bin/true"}, {}, 2, ""},
        {"no bundle", {"report", place("absent.vnt")}, {}, 1, "absent.vnt"},
        {"no command", {}, {}, 2, ""},
    };
    for (const Row& row : rows) {
        ToolRun run;
        run.arguments = row.arguments;
        run.arguments.insert(run.arguments.begin(), programPath("rumbel"));
        if (row.arguments.size() > 1 && row.arguments[0] == "record" && row.arguments[1] != "-o") {
            run.arguments.insert(run.arguments.begin() + 2, {"-o", place("fault")});
        }
        run.environment = row.environment;
        const ToolResult result = Tool(run).wait();
        EXPECT_EQ(result.status, row.status) << row.what << ": " << result.err;
        EXPECT_NE(result.err.find(row.sentence), std::string::npos) << row.what << ": " << result.err;
        EXPECT_EQ(spoolCount(), 0u) << row.what;
        EXPECT_FALSE(std::filesystem::exists(place("fault.vnt"))) << row.what;
    }
}

/// A server that has no signature for anything, so that the start fails when the program has been launched.
TEST(Faults, AFailedStartKillsWhatItLaunched)
{
    // In a world of its own: the real server may still stand at its name in this one.
    const std::string world = place("scripted");
    ASSERT_TRUE(sys::makeDirectories(world, 0700).ok());
    const std::string before = sys::environmentOr("VANTORA_BOOTSTRAP_DIR", "");
    const std::string beforeSystem = sys::environmentOr("VANTORA_SYSTEM_BOOTSTRAP_DIR", "");
    ::setenv("VANTORA_BOOTSTRAP_DIR", (world + "/u").c_str(), 1);
    ::setenv("VANTORA_SYSTEM_BOOTSTRAP_DIR", (world + "/s").c_str(), 1);
    ScriptedServer server;
    const CreationPort creation(server.address());
    const std::string marker = "6" + std::to_string(::getpid()); // seconds to sleep, and a mark on the command line
    const ToolResult run = rumbel({"record", "-o", place("unstarted"), "--", "/bin/sleep", marker});
    EXPECT_EQ(run.status, 1) << run.out;
    EXPECT_NE(run.err.find("Vantora: Failed to create symbolicators"), std::string::npos) << run.err;
    EXPECT_TRUE(processesWith(std::string("/bin/sleep") + '\0' + marker).empty());
    EXPECT_FALSE(std::filesystem::exists(place("unstarted.vnt")));
    ::setenv("VANTORA_BOOTSTRAP_DIR", before.c_str(), 1);
    ::setenv("VANTORA_SYSTEM_BOOTSTRAP_DIR", beforeSystem.c_str(), 1);
}

TEST(Faults, ATargetThatExitsAtOnceIsNoTrouble)
{
    for (int i = 0; i < 5; ++i) {
        const ToolResult run = rumbel({"record", "-o", place("true"), "--", "/bin/true"});
        // So short a run may hold no sample at all; then there is nothing to save and the tool says so.
        EXPECT_TRUE(run.status == 0 || run.err.find("nothing was recorded") != std::string::npos) << run.err;
        EXPECT_NE(run.out.find("Target process ended..."), std::string::npos) << run.out;
        EXPECT_EQ(spoolCount(), 0u);
    }
}

/// The worker of one tool: its command line names its client.
pid_t awaitWorkerOf(pid_t client)
{
    const std::string mark = std::string(1, '\0') + std::to_string(client) + '\0';
    for (int i = 0; i < 30'000; ++i) {
        for (const pid_t pid : processesWith(mark)) {
            const auto line = sys::readFile("/proc/" + std::to_string(pid) + "/cmdline", 1u << 20);
            if (line.ok() && line.value().find("--worker") != std::string::npos)
                return pid;
        }
        ::usleep(1000);
    }
    return -1;
}

TEST(Faults, AServerKilledWhileRecordingEndsTheToolAndLeavesTheTargetAlone)
{
    ToolRun targetRun;
    targetRun.arguments = {programPath("demo_workload"), "600"};
    const Tool target(targetRun);
    ToolRun record;
    record.arguments = {programPath("rumbel"), "record", "-o", place("killed"), "-p", std::to_string(target.pid())};
    Tool tool(record);
    for (int i = 0; i < 30'000 && spoolCount() == 0; ++i)
        ::usleep(1000);
    ::kill(awaitWorkerOf(tool.pid()), SIGKILL);
    const ToolResult run = tool.wait();
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_NE(run.err.find("the connection to the server is gone"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Stack Sampler data not saved"), std::string::npos) << run.err;
    const std::string status = sys::readFile("/proc/" + std::to_string(target.pid()) + "/status", 65536).take();
    EXPECT_NE(status.find("TracerPid:\t0"), std::string::npos);
    EXPECT_EQ(status.find("State:\tT"), std::string::npos);
    EXPECT_TRUE(std::filesystem::is_directory("/proc/" + std::to_string(target.pid())));
    EXPECT_EQ(spoolCount(), 0u);
}

TEST(Faults, AServerKilledWhileItsLaunchedTargetRunsLeavesNoProcess)
{
    const std::string marker = "7" + std::to_string(::getpid());
    ToolRun record;
    record.arguments = {programPath("rumbel"), "record", "-o", place("killed"), "--", "/bin/sleep", marker};
    Tool tool(record);
    const std::string program = std::string("/bin/sleep") + '\0' + marker;
    for (int i = 0; i < 30'000 && processesWith(program).empty(); ++i)
        ::usleep(1000);
    ::kill(awaitWorkerOf(tool.pid()), SIGKILL);
    const ToolResult run = tool.wait();
    EXPECT_EQ(run.status, 1) << run.out << run.err;
    EXPECT_TRUE(processesWith(program).empty());
}

TEST(Faults, ATruncatedBundleIsReadAsFarAsItGoes)
{
    const std::string bundle = place("cut") + ".vnt";
    ASSERT_EQ(rumbel({"record", "-o", bundle, "--", programPath("demo_workload"), "0.5"}).status, 0);
    const std::string stream = bundle + "/quillon.vnt.stacksampler.messagequeue";
    const auto size = std::filesystem::file_size(stream);
    for (const auto length : {size - 1, size / 2, uintmax_t{17}, uintmax_t{3}, uintmax_t{0}}) {
        std::filesystem::resize_file(stream, length);
        const ToolResult report = rumbel({"report", "--json", bundle});
        EXPECT_TRUE(report.status == 0 || report.status == 1) << length << ": " << report.status;
        EXPECT_NE(report.err, "") << length;
    }
    std::filesystem::resize_file(bundle + "/quillon.vnt.stacksampler", 40);
    const ToolResult report = rumbel({"report", bundle});
    EXPECT_EQ(report.status, 1);
    EXPECT_NE(report.err, "");
}

} // namespace
} // namespace vnt::test
