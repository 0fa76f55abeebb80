#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

namespace vnt::test {
namespace {

using nlohmann::json;

constexpr uid_t kNobody = 65534;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

/// Seconds that the example program spends; enough samples for shares to settle.
const std::string kSeconds = "2";

json stackReport(const std::string& bundle)
{
    const ToolResult report = rumbel({"report", "--json", bundle});
    EXPECT_EQ(report.status, 0) << report.err;
    const json whole = json::parse(report.out, nullptr, false);
    EXPECT_FALSE(whole.is_discarded()) << report.out.substr(0, 200);
    return whole.value("/instruments/quillon.vnt.stacksampler"_json_pointer, json());
}

/// What demo_workload says of itself on its last lines: function and percent.
std::map<std::string, double> ownShares(const std::string& output)
{
    std::map<std::string, double> shares;
    for (size_t at = output.find("demo: "); at != std::string::npos; at = output.find("demo: ", at + 1)) {
        char name[64];
        double percent = 0;
        if (std::sscanf(output.c_str() + at, "demo: %63s %lf", name, &percent) == 2)
            shares[name] = percent;
    }
    return shares;
}

/// Share of all samples whose stack holds the function.
double totalShare(const json& stacks, const std::string& function)
{
    for (const json& entry : stacks["functions"]) {
        const std::string name = entry["name"];
        if (name == function || name.find(function + "(") != std::string::npos)
            return 100.0 * entry["total"].get<double>() / stacks["samples"].get<double>();
    }
    return 0;
}

void expectSharesAgree(const json& stacks, const std::map<std::string, double>& truth)
{
    ASSERT_FALSE(truth.empty());
    for (const auto& [function, percent] : truth)
        EXPECT_NEAR(totalShare(stacks, function), percent, 3.0) << function;
}

TEST(Record, ALaunchedProgramIsRecordedUntilItEnds)
{
    const std::string bundle = place("launched");
    const ToolResult run = rumbel({"record", "-o", bundle, "--", programPath("demo_workload"), kSeconds});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("rumbel: Target process ended...\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("rumbel: Session saved at " + bundle + ".vnt\n"), std::string::npos) << run.out;
    const json stacks = stackReport(bundle + ".vnt");
    EXPECT_GT(stacks["samples"], 500);
#ifdef __SANITIZE_ADDRESS__
    if (stacks["lost"] > stacks["samples"].get<int>() / 100)
        GTEST_SKIP() << "a recorder with sanitizers in it did not keep up; it counted what it lost: " << stacks["lost"];
#endif
    EXPECT_LE(stacks["lost"], stacks["samples"].get<int>() / 100) << "of a machine that has time";
    expectSharesAgree(stacks, ownShares(run.out));

    const ToolResult text = rumbel({"report", "--tree", bundle + ".vnt"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("compressBlocks"), std::string::npos);
}

TEST(Record, ChildrenAndCodeWithoutFramePointersHaveTheirNames)
{
    const std::string bundle = place("family");
    const std::string work = targetPath("deepsplitframeless") + " 800";
    const ToolResult run = rumbel({"record", "-o", bundle, "--", "/bin/sh", "-c", work + " && " + work + " signal"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json stacks = stackReport(bundle + ".vnt");
    EXPECT_GT(stacks["samples"], 800) << "two children, 0.8 s each";
    EXPECT_GT(totalShare(stacks, "compare"), 90);
    EXPECT_GT(totalShare(stacks, "descend"), 90);
    EXPECT_NEAR(totalShare(stacks, "spin_60"), 60, 8);
    EXPECT_NEAR(totalShare(stacks, "spin_30"), 30, 6);
    EXPECT_NEAR(totalShare(stacks, "fill_10"), 10, 4) << "the caller of a C library function";
    EXPECT_NEAR(totalShare(stacks, "on_signal"), 50, 12) << "the second child";
}

TEST(Record, ARunningProcessIsFoundByPidAndByName)
{
    // A name of its own: other tests run the same program at the same time.
    const std::string name = "workload-" + sys::randomHex(4);
    std::filesystem::copy_file(programPath("demo_workload"), place(name));
    for (const char* how : {"-p", "-n"}) {
        ToolRun target;
        target.arguments = {place(name), "600"};
        const Tool running(target);
        const std::string bundle = place(std::string("attached") + how);
        const std::string whom = how[1] == 'p' ? std::to_string(running.pid()) : name;
        const ToolResult run = rumbel({"record", "-o", bundle, how, whom, "-d", "1"});
        ASSERT_EQ(run.status, 0) << run.err << run.out;
        const json stacks = stackReport(bundle + ".vnt");
        EXPECT_GT(stacks["samples"], 200) << how;
        EXPECT_GT(totalShare(stacks, "compressBlocks"), 10) << how;
        // Left as it was: running, not traced, not stopped.
        const std::string status = sys::readFile("/proc/" + std::to_string(running.pid()) + "/status", 65536).take();
        EXPECT_NE(status.find("TracerPid:\t0"), std::string::npos);
        EXPECT_EQ(status.find("State:\tT"), std::string::npos);
    }
}

TEST(Record, AllProcessesAreRecorded)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root: events of the whole machine";
    ToolRun target;
    target.arguments = {programPath("demo_workload"), "600"};
    const Tool running(target);
    const std::string bundle = place("everything");
    const ToolResult run = rumbel({"record", "-o", bundle, "-a", "-d", "1"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json stacks = stackReport(bundle + ".vnt");
    EXPECT_GT(totalShare(stacks, "compressBlocks"), 0); // how much depends on what else runs
}

TEST(Record, ThreadsThatWaitAreRecordedWhenAsked)
{
    const ToolResult run = rumbel({"record", "--all-states", "-o", place("states"), "--", targetPath("waiting"), "10"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err.find("interval"), std::string::npos) << run.err;
    const json stacks = stackReport(place("states.vnt"));
    EXPECT_GE(stacks["blocked_samples"], 10);
    EXPECT_EQ(stacks["threads"].size(), 2u);
    for (const json& thread : stacks["threads"]) {
        // Ten times 20 ms; nothing is counted twice.
        EXPECT_GE(thread["blocked_ms"], 190) << thread;
        EXPECT_LE(thread["blocked_ms"], stacks["duration_ms"]) << thread;
    }
    const auto& functions = stacks["functions"];
    EXPECT_TRUE(std::any_of(functions.begin(), functions.end(), [](const json& f) {
        return f["name"] == "wait_outer" && f["blocked_total_ms"] >= 190;
    })) << functions.dump(1);
}

TEST(Record, AnInterruptStopsAndSaves)
{
    const std::string bundle = place("interrupted");
    ToolRun target;
    target.arguments = {programPath("demo_workload"), "600"};
    const Tool running(target);
    ToolRun record;
    record.arguments = {programPath("rumbel"), "record", "-o", bundle, "-p", std::to_string(running.pid())};
    Tool tool(record);
    // It records once its spool holds something.
    const std::string spools = sys::environmentOr("XDG_STATE_HOME", "") + "/vantora/spool";
    for (int i = 0; i < 30'000; ++i) {
        const auto names = sys::listDirectory(spools);
        if (names.ok() && !names.value().empty())
            break;
        ::usleep(1000);
    }
    tool.signal(SIGINT);
    const ToolResult run = tool.wait();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("rumbel: Profiling interrupted...\nrumbel: Session saved at "), std::string::npos)
        << run.out;
    EXPECT_GT(stackReport(bundle + ".vnt")["samples"], 0);
}

TEST(Record, AnOrdinaryUserRecordsOwnProcesses)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    const std::string home = place("home");
    ASSERT_TRUE(sys::makeDirectories(home, 0700).ok());
    for (const std::string& path : {place(""), home})
        (void)::chmod(path.c_str(), 0755);
    ASSERT_EQ(::chown(home.c_str(), kNobody, kNobody), 0);
    ToolRun record;
    record.user = kNobody;
    record.environment = {"HOME=" + home, "XDG_STATE_HOME=" + home, "VANTORA_BOOTSTRAP_DIR=" + home + "/b",
                          "TMPDIR=" + home};
    record.arguments = {programPath("rumbel"),        "record", "-o", home + "/mine", "--",
                        programPath("demo_workload"), kSeconds};
    const std::string reach =
        "setpriv --reuid=65534 --regid=65534 --clear-groups test -x '" + record.arguments[0] + "'";
    if (std::system(reach.c_str()) != 0)
        GTEST_SKIP() << "needs a build directory that other users can reach: " << record.arguments[0];
    const ToolResult run = Tool(record).wait();
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json stacks = stackReport(home + "/mine.vnt");
    expectSharesAgree(stacks, ownShares(run.out));
    struct stat info { };
    ASSERT_EQ(::stat((home + "/mine.vnt").c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, kNobody);
}

/// On a real terminal, made by script(1).
TEST(Record, ALaunchedProgramCanReadTheTerminal)
{
    const std::string output = place("terminal.txt");
    const std::string tool = programPath("rumbel") + " record -o " + place("terminal")
        + " -- /bin/sh -c \"read line; echo got \\$line; exit 3\"";
    const std::string command = "printf 'a line\\n' | timeout 60 script -qec '" + tool + "' /dev/null >" + output;
    (void)std::system(command.c_str()); // so short a run may hold no sample, and fail for that
    EXPECT_NE(sys::readFile(output, 65536).take().find("got a line"), std::string::npos);
    EXPECT_NE(sys::readFile(output, 65536).take().find("ended with status 3"), std::string::npos);
}

TEST(Record, TheProgramsStatusCanBePassedOn)
{
    const ToolResult run = rumbel({"record", "-o", place("status"), "--pass-status", "--", "/bin/sh", "-c",
                                   "i=0; while [ $i -lt 200000 ]; do i=$((i+1)); done; exit 7"});
    EXPECT_EQ(run.status, 7) << run.err;
    EXPECT_NE(run.err.find("ended with status 7"), std::string::npos) << run.err;
}

TEST(Record, AnOlderBundleIsKept)
{
    const std::string bundle = place("again");
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(rumbel({"record", "-o", bundle + ".vnt", "--", programPath("demo_workload"), "0.3"}).status, 0);
    EXPECT_TRUE(std::filesystem::exists(bundle + ".vnt/quillon.vnt.stacksampler"));
    EXPECT_TRUE(std::filesystem::exists(bundle + ".vnt.old/quillon.vnt.stacksampler"));
}

} // namespace
} // namespace vnt::test
