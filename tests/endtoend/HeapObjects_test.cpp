// Counted objects and C++ classes in heap recordings: what the targets say of themselves is what the reports say.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>

#include "platform/base/sys.h"
#include "tests/endtoend/Tool.h"
#include "tests/support/TalkingTarget.h"

namespace vnt::test {
namespace {

using nlohmann::json;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

ToolResult record(const std::string& bundle, std::vector<std::string> options, std::vector<std::string> command)
{
    std::vector<std::string> arguments{"record", "-o", bundle, "--pass-status"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.push_back("--");
    arguments.insert(arguments.end(), command.begin(), command.end());
    return rumbel(arguments);
}

json report(const std::string& bundle, const std::string& instrument)
{
    const ToolResult report = rumbel({"report", "--json", "--tree", bundle + ".vnt"});
    EXPECT_EQ(report.status, 0) << report.err;
    const json whole = json::parse(report.out, nullptr, false);
    EXPECT_FALSE(whole.is_discarded()) << report.out.substr(0, 200);
    return whole.value(json::json_pointer("/instruments/quillon.vnt." + instrument), json());
}

/// Records a program while it runs from its "ready" to its "done"; the answer is what it said between.
std::string recordAttached(const std::string& bundle, const std::string& program, const std::string& option)
{
    TalkingTarget target({program, "attach"});
    ToolRun run;
    run.arguments = {programPath("rumbel"),        "record", "-i", "heaprecorder", "-o", bundle, "-p",
                     std::to_string(target.pid()), option};
    Tool tool(run);
    const std::string spools = sys::environmentOr("XDG_STATE_HOME", "") + "/vantora/spool";
    for (int i = 0; i < 60'000; ++i) {
        const auto names = sys::listDirectory(spools);
        if (names.ok() && !names.value().empty())
            break;
        ::usleep(1000);
    }
    target.say("\n");
    const std::string said = target.hear("done");
    tool.signal(SIGINT);
    const ToolResult result = tool.wait();
    EXPECT_EQ(result.status, 0) << result.err << result.out;
    EXPECT_EQ(target.end(), 0);
    return said;
}

void expectCounts(const json& heap, const std::string& said)
{
    long retains = 0, releases = 0, unchanged = 0, objects = 0;
    const size_t at = said.find("counts: ");
    ASSERT_NE(at, std::string::npos) << said;
    ASSERT_EQ(std::sscanf(said.c_str() + at, "counts: %ld %ld %ld %ld", &retains, &releases, &unchanged, &objects), 4);
    ASSERT_TRUE(heap.contains("reference_counts")) << heap.dump().substr(0, 500);
    const json& counts = heap["reference_counts"];
    EXPECT_EQ(counts["retains"], retains);
    EXPECT_EQ(counts["releases"], releases);
    EXPECT_EQ(counts["unchanged"], unchanged);
    EXPECT_EQ(counts["objects"], objects);
    EXPECT_EQ(heap["lost"], 0);
    // The one that was planted, with who took its references and who gave some back.
    ASSERT_EQ(counts["unbalanced"].size(), 1u) << counts;
    const json& object = counts["unbalanced"][0];
    EXPECT_EQ(object["objects"], 1);
    EXPECT_EQ(object["retains"], 5);
    EXPECT_EQ(object["releases"], 2);
    EXPECT_EQ(object["count"], 4); // one that it was made with, and three
    std::map<std::string, long> retained;
    for (const json& use : object["retained"]) {
        const std::string function = use["stack"].at(1); // who called the target's own helper
        retained[function.substr(0, function.find('('))] += use["count"].get<long>();
    }
    EXPECT_EQ(retained, (std::map<std::string, long>{{"takeReference", 4}, {"takeAnother", 1}})) << object;
    long released = 0;
    for (const json& use : object["released"]) {
        released += use["count"].get<long>();
        EXPECT_TRUE(use["stack"].at(1).get<std::string>().starts_with("giveBack")) << use;
        EXPECT_TRUE(use["stack"].at(2).get<std::string>().starts_with("forgotten")) << use;
    }
    EXPECT_EQ(released, 2);
}

struct Counting {
    const char* target;
    const char* needs;
    bool is32Bit = false;
    friend void PrintTo(const Counting& counting, std::ostream* out) { *out << counting.target; }
};

class CountsOf : public testing::TestWithParam<Counting> { };

TEST_P(CountsOf, ALaunchedProgramAreExact)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs " << GetParam().needs;
    const std::string bundle = place(GetParam().target);
    const ToolResult run = record(bundle, {"-i", "heaprecorder", "--reference-counts"}, {target});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    expectCounts(report(bundle, "heaprecorder"), run.out);

    const ToolResult text = rumbel({"report", bundle + ".vnt"});
    EXPECT_NE(text.out.find("Retained more than released, and left: 1"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("takeAnother"), std::string::npos) << text.out;

    const ToolResult whole = rumbel({"export", "--format", "json", "-o", place("counts.json"), bundle + ".vnt"});
    ASSERT_EQ(whole.status, 0) << whole.err;
    const auto content = sys::readFile(place("counts.json"), size_t{64} << 20);
    ASSERT_TRUE(content.ok());
    const json exported = json::parse(content.value(), nullptr, false);
    ASSERT_FALSE(exported.is_discarded());
    std::map<std::string, long> rows;
    for (const json& row : exported["heap"]) {
        if (row[0] == "retain" || row[0] == "release") {
            ++rows[row[0]];
            EXPECT_NE(row[4], 0) << "no thread: " << row;
        }
    }
    const json counts = report(bundle, "heaprecorder")["reference_counts"];
    EXPECT_EQ(rows["retain"], counts["retains"].get<long>());
    EXPECT_EQ(rows["release"], counts["releases"].get<long>());
}

TEST_P(CountsOf, AProgramThatNobodyAskedToCountAreNotThere)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs " << GetParam().needs;
    const std::string bundle = place(std::string("plain-") + GetParam().target);
    const ToolResult run = record(bundle, {"-i", "heaprecorder"}, {target});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = report(bundle, "heaprecorder");
    EXPECT_FALSE(heap.contains("reference_counts"));
    EXPECT_FALSE(heap.contains("classes"));
    EXPECT_GT(heap["allocations"], 0);
}

TEST_P(CountsOf, AnObjectThatWasFreedIsReportedAndLeftAlone)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs " << GetParam().needs;
    const std::string bundle = place(std::string("freed-") + GetParam().target);
    const ToolResult run =
        record(bundle, {"-i", "heaprecorder", "--reference-counts", "--zombies"}, {target, "misuse"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json heap = report(bundle, "heaprecorder");
    ASSERT_EQ(heap["faults"].size(), 2u) << heap["faults"];
    const char* const rows[][2] = {{"retained", "takeReference"}, {"released", "giveBack"}};
    for (size_t i = 0; i < 2; ++i) {
        const json& fault = heap["faults"][i];
        EXPECT_EQ(fault["fault"], rows[i][0]);
        EXPECT_NE(fault["noticed"].dump().find(rows[i][1]), std::string::npos) << fault;
        EXPECT_NE(fault["freed"].dump().find("giveBack"), std::string::npos) << fault;
        EXPECT_NE(fault["allocated"].dump().find("useTooLate"), std::string::npos) << fault;
    }
}

TEST_P(CountsOf, AProcessThatRunsAreExact)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs " << GetParam().needs;
    const std::string bundle = place(std::string("attached-") + GetParam().target);
    const std::string said = recordAttached(bundle, target, "--reference-counts");
    expectCounts(report(bundle, "heaprecorder"), said);
}

INSTANTIATE_TEST_SUITE_P(Heap, CountsOf,
                         testing::Values(Counting{"counttruth", ""},
                                         Counting{"counttruth32",
                                                  "a compiler for this width: apt-get install "
                                                  "g++-multilib",
                                                  true},
                                         Counting{"gobjecttruth", "GObject's headers: apt-get install libglib2.0-dev"}),
                         [](const auto& row) { return std::string(row.param.target); });

TEST(HeapObjects, OurOwnObjectsAreCountedAndTheirLateReleasesFound)
{
    const std::string target = targetPath("cftruth");
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a library without sanitizers";
    const std::string bundle = place("own");
    const ToolResult run = record(bundle, {"-i", "heaprecorder", "--reference-counts"}, {target});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json counts = report(bundle, "heaprecorder")["reference_counts"];
    EXPECT_EQ(counts["retains"], 12);
    EXPECT_EQ(counts["releases"], 20);
    EXPECT_EQ(counts["objects"], 11);
    ASSERT_EQ(counts["unbalanced"].size(), 1u) << counts;
    EXPECT_EQ(counts["unbalanced"][0]["retains"], 2);
    EXPECT_EQ(counts["unbalanced"][0]["releases"], 0);
    for (const json& use : counts["unbalanced"][0]["retained"])
        EXPECT_EQ(use["stack"].at(0), "retainTwice") << use;

    const std::string misused = place("own-misused");
    const ToolResult late =
        record(misused, {"-i", "heaprecorder", "--reference-counts", "--zombies"}, {target, "misuse"});
    ASSERT_EQ(late.status, 0) << late.err << late.out;
    const json faults = report(misused, "heaprecorder")["faults"];
    ASSERT_EQ(faults.size(), 1u) << faults;
    EXPECT_EQ(faults[0]["fault"], "released");
    EXPECT_EQ(faults[0]["noticed"].at(0), "releaseLate");
    EXPECT_NE(faults[0]["allocated"].dump().find("CFArrayCreateMutable"), std::string::npos) << faults;
}

struct Classes {
    const char* target;
    bool is32Bit;
    friend void PrintTo(const Classes& classes, std::ostream* out) { *out << classes.target; }
};

class ClassesOf : public testing::TestWithParam<Classes> { };

using BlocksAndBytes = std::pair<long, long>;

std::map<std::string, BlocksAndBytes> saidClasses(const std::string& said)
{
    std::map<std::string, BlocksAndBytes> classes;
    for (size_t at = said.find("class: "); at != std::string::npos; at = said.find("class: ", at + 1)) {
        char name[128];
        long blocks = 0, bytes = 0;
        if (std::sscanf(said.c_str() + at, "class: %ld %ld %127[^\n]", &blocks, &bytes, name) == 3)
            classes[name] = {blocks, bytes};
    }
    EXPECT_EQ(classes.size(), 7u) << said;
    return classes;
}

void expectClasses(const json& heap, const std::string& said)
{
    std::map<std::string, BlocksAndBytes> found;
    for (const json& each : heap["classes"])
        found[each["class"]] = {each["live_blocks"].get<long>(), each["bytes"].get<long>()};
    // What holds a shared object is one of the C++ library's classes; what begins with a text's address is none.
    size_t shared = 0;
    for (auto each = found.begin(); each != found.end();) {
        const bool isShared = each->first.starts_with("std::_Sp_counted");
        shared += isShared;
        each = isShared ? found.erase(each) : std::next(each);
    }
    EXPECT_EQ(shared, 1u);
    EXPECT_EQ(found, saidClasses(said)) << heap["classes"];
    EXPECT_EQ(heap["classes_looked_at"]["live_blocks"], heap["live_blocks"]);
}

TEST_P(ClassesOf, ALaunchedProgramAreExact)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string bundle = place(std::string("classes-") + GetParam().target);
    const ToolResult run = record(bundle, {"-i", "heaprecorder", "--class-names"}, {target});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    expectClasses(report(bundle, "heaprecorder"), run.out);
    const ToolResult text = rumbel({"report", bundle + ".vnt"});
    EXPECT_NE(text.out.find("(anonymous namespace)::Hidden"), std::string::npos) << text.out;
}

TEST_P(ClassesOf, AProcessThatRunsAreExact)
{
    const std::string target = targetPath(GetParam().target);
    const std::string bundle = place(std::string("attached-classes-") + GetParam().target);
    const std::string said = recordAttached(bundle, target, "--class-names");
    expectClasses(report(bundle, "heaprecorder"), said);
}

/// An archive has the names, wherever it is read.
TEST_P(ClassesOf, AnArchivedBundleAreThereWithoutTheProgram)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string program = place(std::string("copied-") + GetParam().target);
    std::filesystem::copy_file(target, program, std::filesystem::copy_options::overwrite_existing);
    const std::string bundle = place(std::string("archived-") + GetParam().target);
    const ToolResult run = record(bundle, {"-i", "heaprecorder", "--class-names"}, {program});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const ToolResult archive = rumbel({"archive", bundle + ".vnt"});
    ASSERT_EQ(archive.status, 0) << archive.err;
    std::filesystem::remove(program);
    expectClasses(report(bundle, "heaprecorder"), run.out);
}

TEST_P(ClassesOf, LeakedBlocksAreTold)
{
    const std::string target = targetPath(GetParam().target);
    if (!std::filesystem::exists(target))
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    const std::string bundle = place(std::string("leaked-") + GetParam().target);
    const ToolResult run = record(bundle, {"-i", "orphanfinder", "--class-names"}, {target, "leak"});
    ASSERT_EQ(run.status, 0) << run.err << run.out;
    const json leaks = report(bundle, "orphanfinder");
    std::map<std::string, BlocksAndBytes> found;
    for (const json& leak : leaks["list"]) {
        if (!leak.contains("class") || leak["class"].get<std::string>().starts_with("std::"))
            continue;
        auto& [blocks, bytes] = found[leak["class"]];
        ++blocks;
        bytes += leak["size"].get<long>();
    }
    EXPECT_EQ(found, saidClasses(run.out)) << leaks.dump(1).substr(0, 2000);
    const ToolResult text = rumbel({"report", "--tree", bundle + ".vnt"});
    EXPECT_NE(text.out.find("shapes::Square"), std::string::npos) << text.out;
}

INSTANTIATE_TEST_SUITE_P(Heap, ClassesOf, testing::Values(Classes{"classtruth", false}, Classes{"classtruth32", true}),
                         [](const auto& row) { return std::string(row.param.target); });

} // namespace
} // namespace vnt::test
