#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "platform/messagequeue/MessageStream.h"
#include "tests/endtoend/Tool.h"

namespace vnt::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

namespace fs = std::filesystem;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }
std::string stateFile(const std::string& name) { return sys::environmentOr("XDG_STATE_HOME", "") + "/vantora/" + name; }

uint64_t sizeOf(const std::string& path)
{
    const auto info = sys::statFile(path);
    return info.ok() ? static_cast<uint64_t>(info.value().st_size) : 0;
}

/// The recorder's spool of the sampler, or empty.
std::string samplerSpool(pid_t recorder)
{
    const auto names = sys::listDirectory(stateFile("spool"));
    for (const std::string& name : names.ok() ? names.value() : std::vector<std::string>()) {
        if (name.starts_with(std::to_string(recorder) + ".quillon.server.services.zeltotap")
            && name.ends_with(".spool"))
            return stateFile("spool/" + name);
    }
    return {};
}

json crashed()
{
    const ToolResult result = rumbel({"recover", "--json"});
    EXPECT_EQ(result.status, 0) << result.err;
    return json::parse(result.out, nullptr, /*allow_exceptions=*/false);
}

/// Records the example program, for longer than the test takes, until a second of samples has arrived.
std::unique_ptr<Tool> recordSome(const std::string& output)
{
    ToolRun run;
    run.arguments = {programPath("rumbel"),        "record", "-i", "stacksampler,processcensus", "-o", output, "--",
                     programPath("demo_workload"), "600"};
    auto tool = std::make_unique<Tool>(run);
    for (int i = 0; i < 60'000 && sizeOf(samplerSpool(tool->pid())) < 2'000; ++i)
        ::usleep(1000);
    EXPECT_GE(sizeOf(samplerSpool(tool->pid())), 2'000u);
    return tool;
}

/// The program that a killed tool had launched goes on.
void endTarget(const json& recording)
{
    const pid_t target = recording.value("target", 0);
    ASSERT_GT(target, 0);
    const auto line = sys::readFile("/proc/" + std::to_string(target) + "/cmdline", 4096);
    if (line.ok() && line.value().find("demo_workload") != std::string::npos)
        ::kill(target, SIGKILL);
}

TEST(Recover, AKilledRecordingBecomesABundleWithNamesAndSettings)
{
    const std::string output = place("killed");
    auto tool = recordSome(output);
    const pid_t recorder = tool->pid();
    EXPECT_EQ(crashed(), json::array()) << "a living recording is nobody's to recover";
    tool->signal(SIGKILL);
    EXPECT_EQ(tool->wait().status, 128 + SIGKILL);

    const json list = crashed();
    ASSERT_EQ(list.size(), 1u) << list;
    endTarget(list[0]);
    EXPECT_EQ(list[0].value("recorder", 0), recorder);
    EXPECT_EQ(list[0].value("output", ""), output + ".vnt");
    EXPECT_EQ(list[0]["instruments"].size(), 2u) << list;

    const ToolResult recovered = rumbel({"recover", std::to_string(recorder)});
    EXPECT_EQ(recovered.status, 0) << recovered.err;
    EXPECT_EQ(recovered.out, output + ".vnt\n");
    const ToolResult report = rumbel({"report", output + ".vnt"});
    EXPECT_EQ(report.status, 0) << report.err;
    EXPECT_THAT(report.out, HasSubstr("compressBlocks"));
    EXPECT_THAT(report.out, HasSubstr("one every 1.00 ms"));
    EXPECT_THAT(report.out, HasSubstr("Process Census"));
    EXPECT_THAT(report.out, HasSubstr("demo_workload"));

    EXPECT_EQ(crashed(), json::array());
    EXPECT_EQ(rumbel({"recover", std::to_string(recorder)}).status, 1);
}

TEST(Recover, InterruptedTwiceTheToolLeavesAtOnceAndNothingRecordedIsLost)
{
    const std::string output = place("twice");
    auto tool = recordSome(output);
    // Two different signals: both are delivered even when the second comes before the first was taken.
    tool->signal(SIGINT);
    tool->signal(SIGTERM);
    const ToolResult left = tool->wait();
    EXPECT_EQ(left.status, 130) << left.err;
    EXPECT_THAT(left.err, HasSubstr("rumbel recover"));
    for (const json& recording : crashed())
        endTarget(recording);

    EXPECT_EQ(rumbel({"recover", "--all"}).status, 0);
    const ToolResult report = rumbel({"report", output + ".vnt"});
    EXPECT_EQ(report.status, 0) << report.err;
    EXPECT_THAT(report.out, HasSubstr("compressBlocks"));
    EXPECT_THAT(report.out, HasSubstr("Process Census"));
    EXPECT_EQ(crashed(), json::array());
}

std::string frame(const std::string& payload)
{
    const auto header = messageStreamFrameHeader(std::as_bytes(std::span(payload)));
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload;
}

std::string stream(const std::string& frames)
{
    const auto header = messageStreamFileHeader();
    return std::string(reinterpret_cast<const char*>(header.data()), header.size()) + frames;
}

void write(const std::string& path, const std::string& bytes)
{
    fs::create_directories(fs::path(path).parent_path());
    fs::permissions(fs::path(path).parent_path(), fs::perms::owner_all);
    std::ofstream(path, std::ios::binary) << bytes;
}

// A pid that no process has: above the kernel's limit (PID_MAX_LIMIT of proc(5)).
constexpr const char* kNobody = "4194305";

std::string nobodysSpool()
{
    return stateFile(std::string("spool/") + kNobody + ".quillon.server.services.zeltotap.00000000.spool");
}
std::string nobodysNote() { return stateFile(std::string("recordings/") + kNobody + ".note"); }

TEST(Recover, DamagedLeftoversGiveWhatIsWholeAndNeverStopTheTool)
{
    struct Row {
        const char* what;
        std::string spool;
        std::string note; ///< empty: no file
        int status;
        std::string says; ///< on standard error
    } rows[] = {
        {"no note", stream(frame("x")), "", 0, "nothing tells what was recorded"},
        {"a note of nothing", stream(frame("x")), "no archive at all", 0, "nothing tells what was recorded"},
        {"torn in the last frame", stream(frame("x") + frame("yz").substr(0, 17)), "", 0, "is lost"},
        {"nothing but the beginning", stream(""), "", 0, "nothing tells"},
        {"not a stream", "something else entirely", "", 1, "recording 4194305"},
        {"an empty file", "", "", 1, "recording 4194305"},
    };
    for (const Row& row : rows) {
        const std::string output = place("damaged");
        write(nobodysSpool(), row.spool);
        if (!row.note.empty())
            write(nobodysNote(), row.note);
        const ToolResult result = rumbel({"recover", kNobody, "-o", output + ".vnt/"});
        EXPECT_EQ(result.status, row.status) << row.what << result.err;
        EXPECT_THAT(result.err, HasSubstr(row.says)) << row.what;
        EXPECT_EQ(sizeOf(output + ".vnt/quillon.vnt.stacksampler.messagequeue") > 0, row.status == 0) << row.what;
        EXPECT_EQ(fs::exists(nobodysSpool()), row.status != 0) << row.what;
        if (row.status == 0) {
            EXPECT_EQ(rumbel({"report", output + ".vnt"}).status, 0) << row.what;
        }
        EXPECT_EQ(rumbel({"recover", kNobody, "--discard"}).status, row.status == 0 ? 1 : 0) << row.what;
        EXPECT_FALSE(fs::exists(nobodysSpool())) << row.what;
        fs::remove_all(output + ".vnt");
        fs::remove(nobodysNote());
    }
}

TEST(Recover, NeverWritesOverAnotherRecording)
{
    const std::string output = place("taken");
    write(output + ".vnt/quillon.vnt.stacksampler.messagequeue", "another recording's");
    write(nobodysSpool(), stream(frame("x")));
    const ToolResult refused = rumbel({"recover", kNobody, "-o", output});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.err, HasSubstr("name another bundle with -o"));
    EXPECT_EQ(sys::readFile(output + ".vnt/quillon.vnt.stacksampler.messagequeue", 100).take(), "another recording's");
    EXPECT_TRUE(fs::exists(nobodysSpool()));
    EXPECT_EQ(rumbel({"recover", kNobody, "-o", place("free")}).status, 0);
}

TEST(Recover, ANoteWithoutDataGoes)
{
    write(nobodysNote(), "left by a tool that had saved everything");
    EXPECT_EQ(crashed(), json::array());
    EXPECT_FALSE(fs::exists(nobodysNote()));
}

} // namespace
} // namespace vnt::test
