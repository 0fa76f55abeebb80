#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <tuple>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"

namespace vnt::test {
namespace {

using nlohmann::json;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

ToolResult record(const std::string& bundle, std::vector<std::string> more)
{
    std::vector<std::string> arguments{"record", "-i", "orphanfinder", "-o", bundle};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return rumbel(arguments);
}

json orphanReport(const std::string& bundle, std::vector<std::string> more = {})
{
    std::vector<std::string> arguments{"report", "--json", bundle + ".vnt"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const ToolResult report = rumbel(arguments);
    EXPECT_EQ(report.status, 0) << report.err;
    const json whole = json::parse(report.out, nullptr, false);
    EXPECT_FALSE(whole.is_discarded()) << report.out.substr(0, 200);
    return whole.value("/instruments/quillon.vnt.orphanfinder"_json_pointer, json());
}

/// function and kind -> blocks and bytes.
using Losses = std::map<std::pair<std::string, std::string>, std::pair<uint64_t, uint64_t>>;

Losses said(const std::string& text)
{
    Losses losses;
    for (size_t at = text.find("leaks: "); at != std::string::npos; at = text.find("leaks: ", at + 1)) {
        char function[64], kind[16];
        unsigned long blocks = 0, bytes = 0;
        if (std::sscanf(text.c_str() + at, "leaks: %63s %lu %lu %15s", function, &blocks, &bytes, kind) == 4)
            losses[{function, kind}] = {blocks, bytes};
    }
    return losses;
}

Losses found(const json& orphans)
{
    Losses losses;
    for (const json& leak : orphans["list"]) {
        std::string function = leak["stack"].empty() ? "?" : leak["stack"][0].get<std::string>();
        function = function.substr(0, function.find('('));
        auto& [blocks, bytes] = losses[{function, leak["kind"].get<std::string>()}];
        ++blocks;
        bytes += leak["size"].get<uint64_t>();
    }
    return losses;
}

class OrphansOf : public testing::TestWithParam<const char*> { };

/// What the target says it lost is found, block by block and as what it is lost, and nothing that it holds.
TEST_P(OrphansOf, WhatAProgramLosesIsFoundExactly)
{
    const std::string target = targetPath(GetParam());
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const struct {
        const char* mode;
        std::vector<std::string> options;
        bool atExit;
    } rows[] = {{"exit", {"--pass-status"}, true}, {"wait", {"-d", "1"}, false}};
    for (const auto& row : rows) {
        const std::string bundle = place(std::string("orphans-") + GetParam() + row.mode);
        std::vector<std::string> arguments = row.options;
        arguments.insert(arguments.end(), {"--", target, row.mode});
        const ToolResult run = record(bundle, arguments);
        ASSERT_EQ(run.status, 0) << run.err << run.out;
        const json orphans = orphanReport(bundle, {"--tree"});
        const Losses truth = said(run.out);
        ASSERT_EQ(truth.size(), 10u) << run.out;
        EXPECT_EQ(found(orphans), truth) << orphans.dump(1).substr(0, 4000);
        EXPECT_EQ(orphans["leaks"], orphans["list"].size());
        EXPECT_EQ(orphans["at_exit"], row.atExit);
        EXPECT_EQ(orphans["lost"], 0);
        EXPECT_EQ(orphans["unreadable_bytes"], 0);
        EXPECT_GT(orphans["pause_us"], 0);
        EXPECT_EQ(orphans["threads"], 5);
    }
}

INSTANTIATE_TEST_SUITE_P(Orphans, OrphansOf, testing::Values("leaktruth", "leaktruth32"),
                         [](const auto& row) { return std::string(row.param); });

TEST(Orphans, ObjectsOfTheCppLibraryAreFollowed)
{
    const std::string bundle = place("orphans-cpp");
    const ToolResult run = record(bundle, {"--contents", "--", targetPath("leakcpp")});
    ASSERT_EQ(run.status, 0) << run.err;
    const json orphans = orphanReport(bundle, {"--tree"});
    int total = 0, direct = 0, cycle = 0;
    ASSERT_EQ(std::sscanf(run.out.c_str(), "total: %d\ndirect: %d\ncycle: %d", &total, &direct, &cycle), 3) << run.out;
    EXPECT_EQ(orphans["leaks"], total);
    EXPECT_EQ(orphans["direct"], direct);
    EXPECT_EQ(orphans["cycles"], cycle);
    // Contents were asked for, also of a search that nobody asked for.
    size_t texts = 0;
    for (const json& leak : orphans["list"])
        texts += leak["contents"].get<std::string>().starts_with("61207465787420746f6f"); // "a text too"
    EXPECT_EQ(texts, 21u);
    const ToolResult text = rumbel({"report", "--tree", bundle + ".vnt"});
    EXPECT_NE(text.out.find("losePeers()"), std::string::npos) << text.out;
}

TEST(Orphans, KnownLeaksAreCountedApart)
{
    const std::string bundle = place("orphans-known");
    ASSERT_EQ(record(bundle, {"--", targetPath("leaktruth")}).status, 0);
    const struct {
        const char* what;
        const char* text;
        int shown, suppressed;
    } rows[] = {{"a function", "# known\n\nleak:directBlocks\n", 75, 100},
                {"what it holds goes with it", "leak:^lostL*st\nleak:cycleNode", 105, 70},
                {"a module", "leak:leaktruth", 0, 175},
                {"nothing", "leak:direct$", 175, 0}};
    for (const auto& row : rows) {
        const std::string file = place("known.supp");
        ASSERT_TRUE(sys::writeFileAtomically(file, std::as_bytes(std::span(std::string_view(row.text))), 0600).ok());
        const json orphans = orphanReport(bundle, {"--suppressions", file});
        EXPECT_EQ(orphans["leaks"], row.shown) << row.what;
        EXPECT_EQ(orphans["suppressed"], row.suppressed) << row.what;
    }
    const std::string wrong = place("wrong.supp");
    ASSERT_TRUE(
        sys::writeFileAtomically(wrong, std::as_bytes(std::span(std::string_view("leak:a\nrace:b\n"))), 0600).ok());
    const ToolResult refused = rumbel({"report", "--suppressions", wrong, bundle + ".vnt"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.err.find("line 2"), std::string::npos) << refused.err;
}

TEST(Orphans, ATargetThatCannotBeSearchedIsToldAsSuch)
{
    const struct {
        const char* what;
        std::vector<std::string> command;
        const char* reason;
    } rows[] = {{"killed", {targetPath("leaktruth"), "killed"}, "ended by a signal"},
                {"static", {targetPath("heapstatic")}, "no heap journal"},
                {"goes on without the journal", {"/usr/bin/env", "-i", "/bin/true"}, "ended by a signal or without"}};
    for (const auto& row : rows) {
        const std::string bundle = place("orphans-none");
        std::vector<std::string> arguments{"--"};
        arguments.insert(arguments.end(), row.command.begin(), row.command.end());
        const ToolResult run = record(bundle, arguments);
        EXPECT_EQ(run.status, 0) << row.what << run.err;
        const json orphans = orphanReport(bundle);
        EXPECT_EQ(orphans["searched"], false) << row.what;
        ASSERT_EQ(orphans["not_searched"].size(), 1u) << row.what << run.err;
        EXPECT_NE(orphans["not_searched"][0].get<std::string>().find(row.reason), std::string::npos)
            << row.what << orphans["not_searched"];
    }
}

} // namespace
} // namespace vnt::test
