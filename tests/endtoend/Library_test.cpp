#include <gtest/gtest.h>

#include <filesystem>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

/// The library as a C program of either width uses it, with the services of the 64-bit build.
namespace vnt::test {
namespace {

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

ToolResult example(std::vector<std::string> arguments)
{
    ToolRun run;
    run.arguments = std::move(arguments);
    run.arguments.insert(run.arguments.begin(), VNT_EXAMPLE);
    run.environment = {"VANTORA_PROGRAM_DIR=" + programPath("")};
    return Tool(run).wait();
}

TEST(Library, ACProgramRecordsThroughIt)
{
    ToolRun targetRun;
    targetRun.arguments = {programPath("demo_workload"), "600"};
    const Tool target(targetRun);
    const std::string bundle = place("from-c");
    const ToolResult recorded = example({std::to_string(target.pid()), "1", bundle});
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    const ToolResult report = rumbel({"report", bundle + ".vnt"});
    EXPECT_EQ(report.status, 0) << report.err;
    EXPECT_NE(report.out.find("demo_"), std::string::npos) << report.out;
}

TEST(Library, ACProgramReadsItsErrors)
{
    struct Row {
        std::vector<std::string> arguments;
        const char* text;
    } rows[] = {
        {{"2147483", "1", place("never")}, "creating a session: Vantora: No current process has pid 2147483\n"},
        {{"-5", "1", place("never")}, "creating a session: Vantora: Invalid target process pid -5\n"},
    };
    for (const Row& row : rows) {
        const ToolResult run = example(row.arguments);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, row.text);
        EXPECT_FALSE(std::filesystem::exists(place("never.vnt")));
    }
}

} // namespace
} // namespace vnt::test
