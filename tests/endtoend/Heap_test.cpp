#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"
#include "tests/support/TalkingTarget.h"

namespace vnt::test {
namespace {

using nlohmann::json;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

ToolResult record(const std::string& bundle, std::vector<std::string> command)
{
    std::vector<std::string> arguments{"record", "-i", "heaprecorder", "-o", bundle, "--pass-status", "--"};
    arguments.insert(arguments.end(), command.begin(), command.end());
    return rumbel(arguments);
}

json heapReport(const std::string& bundle)
{
    const ToolResult report = rumbel({"report", "--json", bundle + ".vnt"});
    EXPECT_EQ(report.status, 0) << report.err;
    const json whole = json::parse(report.out, nullptr, false);
    EXPECT_FALSE(whole.is_discarded()) << report.out.substr(0, 200);
    return whole.value("/instruments/quillon.vnt.heaprecorder"_json_pointer, json());
}

/// The site of a function, whose name may be followed by its parameters; empty when there is none.
json siteOf(const json& heap, const std::string& function)
{
    for (const json& site : heap["sites"]) {
        const std::string name = site["function"];
        if (name == function || name.starts_with(function + "("))
            return site;
    }
    return {};
}

/// What the target says of itself is what the report says of it, to the last block and byte.
void expectTruth(const json& heap, const std::string& said)
{
    size_t functions = 0;
    for (size_t at = said.find("heap: "); at != std::string::npos; at = said.find("heap: ", at + 1)) {
        char function[64];
        long allocations = 0, bytes = 0, live = 0;
        if (std::sscanf(said.c_str() + at, "heap: %63s %ld %ld %ld", function, &allocations, &bytes, &live) != 4)
            continue;
        ++functions;
        const json site = siteOf(heap, function);
        ASSERT_FALSE(site.is_null()) << function;
        EXPECT_EQ(site["allocations"], allocations) << function;
        EXPECT_EQ(site["bytes"], bytes) << function;
        EXPECT_EQ(site["live_blocks"], live) << function;
    }
    EXPECT_GE(functions, 9u) << said;
    EXPECT_EQ(heap["lost"], 0);
    EXPECT_EQ(heap["unknown_frees"], 0);
}

struct Width {
    const char* target;
    bool is32Bit;
    friend void PrintTo(const Width& width, std::ostream* out) { *out << width.target; }
};

class HeapOf : public testing::TestWithParam<Width> { };

TEST_P(HeapOf, ALaunchedProgramIsRecordedExactly)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string bundle = place(GetParam().target);
    const ToolResult run = record(bundle, {target});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = heapReport(bundle);
    expectTruth(heap, run.out);
    EXPECT_EQ(heap["is_32_bit"], GetParam().is32Bit);
    EXPECT_EQ(heap["allocations"].get<long>() - heap["frees"].get<long>(), heap["live_blocks"].get<long>());
    EXPECT_EQ(siteOf(heap, "plainBlocks")["temporary"], 900);

    // Also through code without frame pointers: the program's own, and the C library's sort.
    EXPECT_EQ(siteOf(heap, "plainBlocks")["callers"].at(0), "deterministic()");
    EXPECT_EQ(siteOf(heap, "plainBlocks")["callers"].at(1), "main");
    EXPECT_TRUE(siteOf(heap, "innermost")["callers"].at(0).get<std::string>().starts_with("manyTimes"));
    const json callers = siteOf(heap, "compareAndAllocate")["callers"];
    EXPECT_NE(callers.dump().find("sortThroughLibrary"), std::string::npos) << callers;
    EXPECT_NE(callers.dump().find("main"), std::string::npos) << callers;

    const ToolResult text = rumbel({"report", bundle + ".vnt"});
    EXPECT_NE(text.out.find("plainBlocks"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("0 events lost"), std::string::npos) << text.out;
}

TEST_P(HeapOf, AProgramThatExecsIsRecordedBeforeAndAfter)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string bundle = place(std::string("exec-") + GetParam().target);
    const ToolResult run = record(bundle, {target, "exec"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = heapReport(bundle);
    EXPECT_EQ(siteOf(heap, "childBlocks")["allocations"], 100); // before
    EXPECT_EQ(siteOf(heap, "plainBlocks")["allocations"], 1000); // after
    // Twice the constructor ran, and the first program's blocks ended with it.
    EXPECT_EQ(siteOf(heap, "earlyBlocks")["allocations"], 60);
    EXPECT_EQ(siteOf(heap, "earlyBlocks")["live_blocks"], 30);
    EXPECT_EQ(heap["lost"], 0);
}

TEST_P(HeapOf, ForksSignalsAndThreadsAtATimeDoNoHarm)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string bundle = place(std::string("storm-") + GetParam().target);
    const ToolResult run = record(bundle, {target, "storm"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = heapReport(bundle);
    const json storm = siteOf(heap, "stormBlocks");
    EXPECT_GT(storm["allocations"], 4 * 2000);
    if (heap["lost"] != 0)
        return; // a machine so busy that the rings ran over: what is counted is not there
    EXPECT_EQ(storm["live_blocks"], 0);
    EXPECT_EQ(storm["allocations"].get<long>() % 2, 0); // a malloc and a realloc each time
    EXPECT_EQ(siteOf(heap, "oneBlock")["allocations"], 100);
    EXPECT_EQ(heap["unknown_frees"], 0);
}

TEST_P(HeapOf, UsesOfFreedBlocksAreFoundWhereTheyAreKept)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string bundle = place(std::string("zombies-") + GetParam().target);
    const ToolResult run =
        rumbel({"record", "-i", "heaprecorder", "--zombies", "-o", bundle, "--pass-status", "--", target, "misuse"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = heapReport(bundle);
    EXPECT_EQ(siteOf(heap, "makeBlock")["allocations"], 40'002);
    EXPECT_EQ(siteOf(heap, "makeBlock")["live_blocks"], 0);
    ASSERT_EQ(heap["faults"].size(), 2u) << heap["faults"];
    const struct {
        const char* fault;
        int byte;
        const char* noticed;
    } rows[] = {{"second free", 0, "freeAgain"}, {"written", 20, "freeBlock"}};
    for (size_t i = 0; i < 2; ++i) {
        const json& fault = heap["faults"][i];
        EXPECT_EQ(fault["fault"], rows[i].fault);
        EXPECT_EQ(fault["byte"], rows[i].byte);
        EXPECT_TRUE(fault["allocated"].at(0).get<std::string>().starts_with("makeBlock")) << fault;
        EXPECT_TRUE(fault["freed"].at(0).get<std::string>().starts_with("freeBlock")) << fault;
        EXPECT_TRUE(fault["noticed"].at(0).get<std::string>().starts_with(rows[i].noticed)) << fault;
    }
}

INSTANTIATE_TEST_SUITE_P(Heap, HeapOf,
                         testing::Values(Width{"heaptruth", false}, Width{"heapoptimised", false},
                                         Width{"heaptruth32", true}),
                         [](const auto& row) { return std::string(row.param.target); });

TEST(Heap, AProgramWithoutAJournalIsToldAsSuch)
{
    const std::string bundle = place("static");
    const ToolResult run = record(bundle, {targetPath("heapstatic")});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.err.find("did not load the journal"), std::string::npos) << run.err;
    const json heap = heapReport(bundle);
    EXPECT_EQ(heap["journal_pid"], 0);
    EXPECT_EQ(heap["allocations"], 0);
    const ToolResult text = rumbel({"report", bundle + ".vnt"});
    EXPECT_NE(text.out.find("no journal reported itself"), std::string::npos) << text.out;
}

TEST(Heap, ATargetThatGoesOnWithoutTheJournalIsToldAsSuch)
{
    const std::string bundle = place("without");
    const ToolResult run = record(bundle, {"/usr/bin/env", "-i", "/bin/sleep", "2"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const ToolResult report = rumbel({"report", "--json", bundle + ".vnt"});
    EXPECT_NE(report.err.find("did not load the heap's journal"), std::string::npos) << report.err;
    const json heap = heapReport(bundle);
    EXPECT_GT(heap["allocations"], 0);
    EXPECT_EQ(heap["live_blocks"], 0); // they ended with the program
}

TEST(Heap, ChildrenOfAShellStayQuiet)
{
    const std::string bundle = place("children");
    const ToolResult run =
        record(bundle, {"/bin/sh", "-c", targetPath("heaptruth") + "; " + targetPath("heaptruth") + "; exit 5"});
    EXPECT_EQ(run.status, 5) << run.err;
    EXPECT_TRUE(siteOf(heapReport(bundle), "plainBlocks").is_null());
}

/// The tool, recording the heap of a process that runs; collection has begun.
std::unique_ptr<Tool> recordProcess(const std::string& bundle, pid_t pid)
{
    ToolRun run;
    run.arguments = {programPath("rumbel"), "record", "-i", "heaprecorder", "-o", bundle, "-p", std::to_string(pid)};
    auto tool = std::make_unique<Tool>(run);
    const std::string spools = sys::environmentOr("XDG_STATE_HOME", "") + "/vantora/spool";
    for (int i = 0; i < 30'000; ++i) {
        const auto names = sys::listDirectory(spools);
        if (names.ok() && !names.value().empty())
            return tool;
        ::usleep(1000);
    }
    ADD_FAILURE() << "nothing is recorded";
    return tool;
}

/// A program that is attached to, asked for its blocks and left.
void expectAttachedTruth(const std::string& program, const std::string& name, bool is32Bit)
{
    TalkingTarget target({program, "attach"});
    const std::string bundle = place("attached-" + name);
    const auto tool = recordProcess(bundle, target.pid());
    target.say("\n");
    const std::string said = target.hear("done");
    tool->signal(SIGINT);
    const ToolResult run = tool->wait();
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = heapReport(bundle);
    EXPECT_EQ(heap["attached"], true);
    EXPECT_EQ(heap["is_32_bit"], is32Bit);
    expectTruth(heap, said);
    EXPECT_EQ(siteOf(heap, "plainBlocks")["callers"].at(0), "deterministic()");
    EXPECT_TRUE(siteOf(heap, "earlyBlocks").is_null()); // before
    // The worker takes the journal's memory out of the target when the tool has left.
    for (int i = 0; i < 30'000 && target.maps().find("vantora-heap") != std::string::npos; ++i)
        ::usleep(1000);
    EXPECT_EQ(target.maps().find("vantora-heap"), std::string::npos);
    EXPECT_EQ(target.end(), 0);
}

TEST_P(HeapOf, AProcessThatRunsIsRecordedExactlyAndLeftAsItWas)
{
    const std::string program = targetPath(GetParam().target);
    if (!std::filesystem::exists(program))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    expectAttachedTruth(program, GetParam().target, GetParam().is32Bit);
}

struct Allocator {
    const char* name;
    const char* library;
    friend void PrintTo(const Allocator& allocator, std::ostream* out) { *out << allocator.name; }
};

/// Allocators that are a library of their own, with their own operator new.
class HeapWithAllocator : public testing::TestWithParam<Allocator> {
protected:
    void SetUp() override
    {
        if (!std::filesystem::exists(GetParam().library))
            GTEST_SKIP() << "needs " << GetParam().name << ": scripts/install-packages tests";
    }
};

TEST_P(HeapWithAllocator, PreloadedIntoALaunchedProgram)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the tool itself is built with the address sanitizer, which takes no preloaded library before it";
#endif
    const std::string bundle = place(std::string("preloaded-") + GetParam().name);
    ToolRun run;
    run.arguments = {programPath("rumbel"),      "record", "-i", "heaprecorder", "-o", bundle, "--",
                     targetPath("heaptruth_any")};
    run.environment = {std::string("LD_PRELOAD=") + GetParam().library};
    const ToolResult result = Tool(run).wait();
    ASSERT_EQ(result.status, 0) << result.err << result.out;
    expectTruth(heapReport(bundle), result.out);
}

TEST_P(HeapWithAllocator, LinkedToALaunchedProgram)
{
    const std::string bundle = place(std::string("linked-") + GetParam().name);
    const ToolResult result = record(bundle, {targetPath(std::string("heaptruth_") + GetParam().name)});
    ASSERT_EQ(result.status, 0) << result.err << result.out;
    expectTruth(heapReport(bundle), result.out);
}

TEST_P(HeapWithAllocator, LinkedToAProcessThatRuns)
{
    const std::string name = std::string("heaptruth_") + GetParam().name;
    expectAttachedTruth(targetPath(name), name, false);
}

INSTANTIATE_TEST_SUITE_P(Heap, HeapWithAllocator,
                         testing::Values(Allocator{"jemalloc", VNT_JEMALLOC}, Allocator{"mimalloc", VNT_MIMALLOC}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Heap, AStaticProcessIsRefusedWithTheReason)
{
    TalkingTarget target({targetPath("heapstatic"), "wait"});
    const ToolResult run =
        rumbel({"record", "-i", "heaprecorder", "-o", place("refused"), "-p", std::to_string(target.pid()), "-d", "1"});
    EXPECT_NE(run.status, 0);
    EXPECT_NE(run.err.find("unable to attach to process " + std::to_string(target.pid())), std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("is statically linked"), std::string::npos) << run.err;
    EXPECT_EQ(target.end(), 0);
}

} // namespace
} // namespace vnt::test
