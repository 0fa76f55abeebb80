#include <gtest/gtest.h>

#include <filesystem>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

/// What reads bundles, on a recording made here: the reader's C example, and an archived bundle without its program.
namespace vnt::test {
namespace {

TEST(Reader, ARecordingReadsTheSameInCAndWithoutItsProgram)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a program built with the address sanitizer does not start behind the journal";
#endif
    const std::string directory = sys::environmentOr("TMPDIR", "/tmp");
    const std::string program = directory + "/workload";
    std::filesystem::copy_file(programPath("demo_workload"), program);
    const std::string bundle = directory + "/read.vnt";
    const ToolResult recorded = rumbel(
        {"record", "-i", "stacksampler,heaprecorder,processcensus", "-o", directory + "/read", "--", program, "1"});
    ASSERT_EQ(recorded.status, 0) << recorded.err;

    ToolRun example;
    example.arguments = {programPath("read_bundle_example"), bundle};
    const ToolResult read = Tool(example).wait();
    EXPECT_EQ(read.status, 0) << read.err;
    for (const char* text : {"Stack Sampler, target", "Heap Recorder, target", "Process Census, target",
                             "records, in order", "demo_workload.cpp:", "  kind 1: ", "  kind 3: ", "  kind 9: "})
        EXPECT_NE(read.out.find(text), std::string::npos) << text << " is missing in\n" << read.out;
    EXPECT_EQ(read.out.find("not all in order"), std::string::npos) << read.out;

    const auto reports = [&] {
        std::string all;
        for (const std::string by : {"function", "line", "module", "thread"}) {
            const ToolResult report = rumbel({"report", bundle, "--by", by, "--tree", "--top", "0"});
            EXPECT_EQ(report.status, 0) << report.err;
            all += report.out + report.err;
        }
        return all;
    };
    const std::string before = reports();
    const ToolResult archived = rumbel({"archive", bundle});
    ASSERT_EQ(archived.status, 0) << archived.err;
    EXPECT_TRUE(archived.out.starts_with("stored the symbols of ")) << archived.out;
    std::filesystem::remove(program);
    EXPECT_EQ(reports(), before);

    EXPECT_EQ(rumbel({"report", "--diff", bundle, bundle, "--threshold", "0"}).status, 0);
    EXPECT_EQ(rumbel({"report", bundle, "--by", "colour"}).status, 2);
    EXPECT_EQ(rumbel({"report", bundle, "--from", "soon"}).status, 2);
    EXPECT_EQ(rumbel({"report"}).status, 2);
}

} // namespace
} // namespace vnt::test
