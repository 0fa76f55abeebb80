#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

/// docs/tutorial.md, followed: each section's commands show what its text says they do.
namespace vnt::test {
namespace {

using nlohmann::json;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

/// Records the tutorial's program and answers the report of one instrument.
json reportOf(const std::string& instrument, std::vector<std::string> options)
{
    const std::string bundle = place("tutorial-" + instrument);
    std::vector<std::string> arguments{"record", "-i", instrument, "-o", bundle};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {"--", programPath("tutorial_program"), "2"});
    const ToolResult recorded = rumbel(arguments);
    EXPECT_EQ(recorded.status, 0) << recorded.err;
    const ToolResult report = rumbel({"report", "--json", "--top", "0", bundle + ".vnt"});
    EXPECT_EQ(report.status, 0) << report.err;
    const json all = json::parse(report.out, nullptr, /*allow_exceptions=*/false);
    const auto instruments = all.value("instruments", json::object());
    return instruments.value("quillon.vnt." + instrument, json::object());
}

TEST(Tutorial, TheHotFunctionIsTheFirstOfTheTable)
{
    const json report = reportOf("stacksampler", {});
    const json functions = report.value("functions", json::array());
    ASSERT_FALSE(functions.empty()) << report;
    EXPECT_EQ(functions[0].value("name", ""), "hashWord") << functions[0];
}

TEST(Tutorial, WhatIsNeverFreedStandsWithItsFunction)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a program built with the address sanitizer does not start behind the journal";
#endif
    const json report = reportOf("heaprecorder", {});
    const json sites = report.value("sites", json::array());
    ASSERT_FALSE(sites.empty()) << report;
    EXPECT_EQ(sites[0].value("function", ""), "rememberWord") << sites[0];
    EXPECT_EQ(sites[0].value("live_blocks", 0), sites[0].value("allocations", -1));
}

TEST(Tutorial, WhereAThreadWaitsStandsInTheFunctionThatWaits)
{
    const json report = reportOf("stacksampler", {"--all-states"});
    double total = 0;
    for (const json& function : report.value("functions", json::array())) {
        if (function.value("name", "") == "waitForTurn")
            total = function.value("blocked_total_ms", 0.0);
    }
    EXPECT_GT(total, 0) << report;
}

} // namespace
} // namespace vnt::test
