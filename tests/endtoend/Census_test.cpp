#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

namespace vnt::test {
namespace {

using nlohmann::json;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

json censusOf(const std::string& bundle)
{
    const ToolResult report = rumbel({"report", "--json", bundle});
    EXPECT_EQ(report.status, 0) << report.err;
    return json::parse(report.out, nullptr, false).value("/instruments/quillon.vnt.processcensus"_json_pointer, json());
}

/// A shell that runs a known number of programs while the census looks once.
TEST(Census, ProcessesBetweenTwoSweepsAreInTheReport)
{
    const ToolResult run = rumbel({"record", "-i", "processcensus", "--census-interval", "60000", "-o", place("census"),
                                   "--", "/bin/sh", "-c", "for i in 1 2 3 4 5 6 7 8 9 10; do /bin/true; done; exit 4"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json census = censusOf(place("census.vnt"));
    EXPECT_GE(census["sweeps"], 2);
    if (run.err.find("within a container") != std::string::npos)
        GTEST_SKIP() << run.err;
    EXPECT_EQ(census["lost"], 0);
    EXPECT_EQ(census["processes"].get<size_t>(), census["list"].size());
    int trues = 0;
    bool shell = false;
    for (const json& process : census["list"]) {
        // What ends within microseconds may keep its name for itself, never its beginning and end.
        trues += process["parent"] == census["pid"] && process["started"] == true && process["wait_status"] == 0;
        shell = shell || (process["pid"] == census["pid"] && process["wait_status"] == 4 << 8);
    }
    EXPECT_EQ(trues, 10);
    EXPECT_TRUE(shell);
    const ToolResult text = rumbel({"report", "--top", "0", place("census.vnt")});
    EXPECT_NE(text.out.find("Process Census"), std::string::npos);
    EXPECT_NE(text.out.find("exit 4"), std::string::npos) << text.out;
}

TEST(Census, TheRateIsKept)
{
    const ToolResult run =
        rumbel({"record", "-i", "processcensus", "--census-interval", "100", "-d", "2", "-o", place("rate"), "-a"});
    ASSERT_EQ(run.status, 0) << run.err;
    const json census = censusOf(place("rate.vnt"));
    EXPECT_EQ(census["interval_ms"], 100);
    // Those there was no time for are counted, not silently missing.
    EXPECT_GE(census["sweeps"].get<int>() + census["sweeps_left_out"].get<int>(), 20);
}

} // namespace
} // namespace vnt::test
