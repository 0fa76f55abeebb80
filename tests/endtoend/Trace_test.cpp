#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

namespace vnt::test {
namespace {

using nlohmann::json;

constexpr uid_t kNobody = 65534;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

json traceOf(const std::string& bundle)
{
    const ToolResult report = rumbel({"report", "--json", bundle});
    EXPECT_EQ(report.status, 0) << report.err;
    return json::parse(report.out, nullptr, false).value("/instruments/quillon.vnt.kerneltracer"_json_pointer, json());
}

json callOf(const json& trace, const std::string& name)
{
    for (const json& call : trace["system_calls"]) {
        if (call["name"] == name)
            return call;
    }
    return {};
}

/// The services that another user's run started, which the world's end does not find: by the directory they were given.
void endServicesOf(const std::string& home)
{
    const auto names = sys::listDirectory("/proc");
    for (const std::string& name : names.ok() ? names.value() : std::vector<std::string>()) {
        const auto environment = sys::readFile("/proc/" + name + "/environ", 1u << 20);
        if (environment.ok() && environment.value().find("VANTORA_BOOTSTRAP_DIR=" + home) != std::string::npos)
            (void)::kill(std::atoi(name.c_str()), SIGKILL);
    }
}

TEST(Trace, ALaunchedProgramsSystemCallsAndSwitchesAreInTheReport)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root: kernel events";
    const ToolResult run =
        rumbel({"record", "-i", "kerneltracer", "-o", place("calls"), "--", targetPath("kernelwork"), "calls", "3000"});
    ASSERT_EQ(run.status, 0) << run.err;
    if (run.err.find("within a container") == std::string::npos) {
        EXPECT_EQ(run.err, "");
    }
    const json trace = traceOf(place("calls.vnt"));
    const json getppid = callOf(trace, "getppid");
    EXPECT_EQ(getppid["calls"], 3000);
    EXPECT_EQ(getppid["count"], 3000) << "each with its duration";
    EXPECT_EQ(getppid["errors"], 0);
    EXPECT_GT(getppid["total_ms"], 0);
    EXPECT_EQ(trace["by_name"]["sched:sched_process_exit"], 1);
    EXPECT_GE(trace["by_name"]["raw_syscalls:sys_enter"], 3000);
    size_t sum = 0;
    for (const auto& [name, count] : trace["by_name"].items())
        sum += count.get<size_t>();
    EXPECT_EQ(trace["events"], sum);
    EXPECT_EQ(trace["lost"], 0);
    EXPECT_EQ(trace["out_of_order"], 0);
    const ToolResult text = rumbel({"report", place("calls.vnt")});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("getppid"), std::string::npos) << text.out;
    EXPECT_LE(std::count(text.out.begin(), text.out.end(), '\n'), 50) << "one screen";
    // The descriptions of the events came with them.
    struct stat info { };
    ASSERT_EQ(::stat(place("kdebug_events.cache.xml").c_str(), &info), 0);
    EXPECT_GT(info.st_size, 10'000);
}

TEST(Trace, WaitsAreTheSchedulersWithTheirStacks)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root: kernel events";
    const ToolResult run =
        rumbel({"record", "-i", "kerneltracer", "-o", place("waits"), "--", targetPath("waiting"), "10"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json trace = traceOf(place("waits.vnt"));
    EXPECT_GE(callOf(trace, "clock_nanosleep")["calls"], 10);
    EXPECT_GE(trace["scheduler"]["voluntary_switches"], 11);
    EXPECT_GE(trace["scheduler"]["off_processor"]["total_ms"], 190) << "ten times 20 ms";
    if (run.err.find("within a container") == std::string::npos) {
        EXPECT_GE(trace["scheduler"]["woken"]["count"], 10);
    }
    bool found = false;
    for (const json& stack : trace["off_processor_stacks"]) {
        const std::string frames = stack["frames"].dump();
        found = found || (frames.find("wait_outer") != std::string::npos && stack["total_ms"] >= 190);
    }
    EXPECT_TRUE(found) << trace["off_processor_stacks"].dump(1);
}

TEST(Trace, BesideOtherInstrumentsAndOnAllProcesses)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root: kernel events";
    ToolRun target;
    target.arguments = {targetPath("kernelwork"), "forever"};
    const Tool running(target);
    const ToolResult run = rumbel({"record", "-i", "kerneltracer,stacksampler", "-o", place("both"), "-a", "-d", "1"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json trace = traceOf(place("both.vnt"));
    EXPECT_GT(callOf(trace, "getppid")["calls"], 1000);
    EXPECT_EQ(trace["outside_events"], 0);
    const ToolResult text = rumbel({"report", place("both.vnt")});
    EXPECT_NE(text.out.find("Stack Sampler"), std::string::npos);
    EXPECT_NE(text.out.find("all processes"), std::string::npos);
}

TEST(Trace, AnOrdinaryUserIsToldWhatWouldHelp)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root, to become another user";
    const std::string home = place("tracer-home");
    ASSERT_TRUE(sys::makeDirectories(home, 0700).ok());
    (void)::chmod(place("").c_str(), 0755);
    ASSERT_EQ(::chown(home.c_str(), kNobody, kNobody), 0);
    ToolRun record;
    record.user = kNobody;
    record.environment = {"HOME=" + home, "XDG_STATE_HOME=" + home, "VANTORA_BOOTSTRAP_DIR=" + home + "/b",
                          "TMPDIR=" + home};
    record.arguments = {programPath("rumbel"), "record", "-i", "kerneltracer", "-o", home + "/mine", "--", "/bin/true"};
    const std::string reach =
        "setpriv --reuid=65534 --regid=65534 --clear-groups test -x '" + record.arguments[0] + "'";
    if (std::system(reach.c_str()) != 0)
        GTEST_SKIP() << "needs a build directory that other users can reach: " << record.arguments[0];
    const ToolResult run = Tool(record).wait();
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find("Kernel Tracer: kernel events are for root only; run: sudo rumbel record"),
              std::string::npos)
        << run.err;
    endServicesOf(home);
}

} // namespace
} // namespace vnt::test
