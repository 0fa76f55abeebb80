#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "bundle/Instruments.h"
#include "bundle/exports/Exporter.h"
#include "platform/base/sys.h"
#include "rumbel/export/ExportCommand.h"
#include "tests/endtoend/Tool.h"
#include "tests/exports/SmallBundle.h"

namespace vnt::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

std::string place(const std::string& name) { return sys::environmentOr("TMPDIR", "/tmp") + "/" + name; }

std::string contentOf(const std::string& path)
{
    auto text = sys::readFile(path, size_t{256} << 20);
    EXPECT_TRUE(text.ok()) << text.status().message();
    return text.ok() ? text.take() : std::string();
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

struct Outcome {
    int status = -1;
    std::string err;
    std::string path; ///< of the export
};

Outcome exportTo(ExportCommand command, const std::string& bundle, const std::string& format)
{
    static int number = 0;
    command.bundlePath = bundle;
    command.format = format;
    if (command.output == "-")
        command.output = place("export-" + std::to_string(++number));
    std::ostringstream err;
    Outcome outcome;
    outcome.status = runExport(command, STDOUT_FILENO, err);
    outcome.err = err.str();
    outcome.path = command.output;
    return outcome;
}

/// What the checker says of files of one format; it must find no fault.
json checked(const std::string& format, const std::vector<std::string>& files)
{
    ToolRun run{{"/usr/bin/python3", VNT_SOURCE "/tests/exports/check_export.py", format}, 0, {}};
    run.arguments.insert(run.arguments.end(), files.begin(), files.end());
    run.environment = {"PYTHONDONTWRITEBYTECODE=1"};
    const ToolResult result = Tool(run).wait();
    EXPECT_EQ(result.status, 0) << format << "\n" << result.out.substr(0, 2000) << result.err;
    return result.status == 0 ? json::parse(result.out) : json();
}

json checkedExport(const std::string& bundle, const std::string& format, const ExportCommand& command = {})
{
    const Outcome outcome = exportTo(command, bundle, format);
    EXPECT_EQ(outcome.status, 0) << format << "\n" << outcome.err;
    return checked(format, {outcome.path});
}

/// A format and what of a bundle it is asked to show; one row for each kind of file there is.
struct Case {
    const char* name;
    const char* format;
    const char* instrument; ///< short name; empty: all that the format shows
    bool offCpu = false;
};
constexpr Case kCases[] = {
    {"folded", "folded", "stacksampler"},      {"folded-off-cpu", "folded", "stacksampler", true},
    {"folded-heap", "folded", "heaprecorder"}, {"folded-leaks", "folded", "orphanfinder"},
    {"pprof", "pprof", "stacksampler"},        {"pprof-heap", "pprof", "heaprecorder"},
    {"pprof-leaks", "pprof", "orphanfinder"},  {"perfetto", "perfetto", ""},
    {"speedscope", "speedscope", ""},          {"firefox", "firefox", ""},
    {"csv-samples", "csv", "stacksampler"},    {"csv-events", "csv", "kerneltracer"},
    {"csv-sites", "csv", "heaprecorder"},      {"csv-leaks", "csv", "orphanfinder"},
    {"csv-processes", "csv", "processcensus"}, {"json", "json", ""},
};

ExportCommand commandOf(const Case& one)
{
    ExportCommand command;
    if (*one.instrument != 0)
        command.instruments = {one.instrument};
    command.offCpu = one.offCpu;
    return command;
}

/// Exports `bundle` in every way; each file is checked, all of one format in one go.
void checkAllOf(const std::vector<std::string>& bundles, const char* what)
{
    std::map<std::string, std::vector<std::string>> files;
    for (const std::string& bundle : bundles) {
        for (const Case& one : kCases) {
            const Outcome outcome = exportTo(commandOf(one), bundle, one.format);
            if (outcome.status == 0)
                files[one.format].push_back(outcome.path);
            else
                EXPECT_NE(outcome.err.find("rumbel error: "), std::string::npos) << what << " " << one.name;
        }
    }
    for (const auto& [format, paths] : files)
        (void)checked(format, paths);
}

TEST(Exports, OfASmallBundleAreWhatTheyShouldBe)
{
    const std::string bundle = place("small.vnt");
    makeSmallBundle(bundle);
    const bool writesExpected = ::getenv("VNT_WRITE_EXPECTED") != nullptr;
    for (const Case& one : kCases) {
        const Outcome outcome = exportTo(commandOf(one), bundle, one.format);
        ASSERT_EQ(outcome.status, 0) << one.name << outcome.err;
        std::string text = contentOf(outcome.path);
        const json said = checked(one.format, {outcome.path});
        // Binary files are compared as what the decoder reads in them.
        const std::string_view format = one.format;
        if (format == "pprof" || format == "perfetto")
            text = said.dump(1) + "\n";
        text = replaced(text, bundle, "SMALL");
        const std::string expectedPath = std::string(VNT_SOURCE "/tests/exports/expected/") + one.name + ".txt";
        if (writesExpected) {
            ASSERT_TRUE(sys::writeFileAtomically(expectedPath, std::as_bytes(std::span(text)), 0644).ok());
        }
        EXPECT_EQ(text, contentOf(expectedPath)) << one.name;
    }
}

TEST(Exports, TwiceAreTheSameBytes)
{
    const std::string bundle = place("twice.vnt");
    makeSmallBundle(bundle);
    for (const Case& one : kCases) {
        const Outcome first = exportTo(commandOf(one), bundle, one.format);
        const Outcome second = exportTo(commandOf(one), bundle, one.format);
        EXPECT_EQ(contentOf(first.path), contentOf(second.path)) << one.name;
    }
}

TEST(Exports, AgreeOnTheTotals)
{
    const std::string bundle = place("totals.vnt");
    makeSmallBundle(bundle);
    constexpr uint64_t kCpuNs = 14'000'000;
    constexpr uint64_t kWaitNs = 5'000'300;
    ExportCommand samples;
    samples.instruments = {"stacksampler"};
    EXPECT_EQ(checkedExport(bundle, "pprof", samples)["totals"], json({14, kCpuNs, 1, kWaitNs}));
    EXPECT_EQ(checkedExport(bundle, "folded", samples)["total"], 14);
    EXPECT_EQ(checkedExport(bundle, "json", samples)["weight"], kCpuNs + kWaitNs);
    const json perfetto = checkedExport(bundle, "perfetto");
    EXPECT_EQ(perfetto["samples"]["rumbel.cpu"]["weight"], kCpuNs);
    EXPECT_EQ(perfetto["samples"]["rumbel.off-cpu"]["weight"], kWaitNs);
    const json firefox = checkedExport(bundle, "firefox");
    EXPECT_EQ(firefox["threads"]["42 42 program"]["samples"], 10);
    EXPECT_EQ(firefox["threads"]["42 42 program"]["live_bytes"], 5200);
    EXPECT_EQ(firefox["counters"]["42 processCPU"], 50'000'000);
    ExportCommand heap;
    heap.instruments = {"heaprecorder"};
    EXPECT_EQ(checkedExport(bundle, "pprof", heap)["totals"], json({4, 5300, 3, 5200}));
    samples.perfSamples = true;
    EXPECT_EQ(checkedExport(bundle, "perfetto", samples)["samples"]["perf"]["count"], 14);
}

TEST(Exports, TakeNamesOfEveryKind)
{
    const std::string names[] = {
        "a;b;c",
        "quote\" and \\ back",
        "line\nbreak\r\ttab",
        std::string("\xff\xfe\x80 not UTF-8 \xed\xa0\x80 \xf5"),
        std::string(64 << 10, 'n'),
        "",
        " ",
        "42",
        "<script>alert(1)</script>",
        "\xf0\x9f\x90\x9b",
    };
    std::vector<std::string> bundles;
    for (const std::string& name : names) {
        bundles.push_back(place("names" + std::to_string(bundles.size()) + ".vnt"));
        makeSmallBundle(bundles.back(), {.name = name});
    }
    checkAllOf(bundles, "names");
    const json folded = checkedExport(bundles[0], "folded");
    EXPECT_TRUE(folded["stacks"].contains("program;main;a:b:c;leaf")) << folded["stacks"].dump(1);
    const std::string bad = "\xef\xbf\xbd"; // in place of each byte that is no UTF-8
    const json replacedNames = checkedExport(bundles[3], "folded");
    EXPECT_TRUE(replacedNames["stacks"].contains("program;main;" + bad + bad + bad + " not UTF-8 " + bad + bad + bad
                                                 + " " + bad + ";leaf"))
        << replacedNames["stacks"].dump(1);
}

TEST(Exports, OfRecordingsWithoutContentAreWholeFiles)
{
    std::vector<std::string> bundles;
    const auto make = [&](const SmallBundleOptions& options) {
        bundles.push_back(place("bare" + std::to_string(bundles.size()) + ".vnt"));
        makeSmallBundle(bundles.back(), options);
    };
    make({.hasRecords = false});
    make({.hasArchives = false});
    for (const InstrumentKind& kind : kInstrumentKinds) {
        make({.instruments = {std::string(kind.identifier)}});
        make({.instruments = {std::string(kind.identifier)}, .hasRecords = false});
    }
    checkAllOf(bundles, "bare");
    EXPECT_EQ(checkedExport(bundles[0], "pprof")["totals"], json({0, 0}));
    // Without its archive a recording has no names and begins with its first record.
    const json bare = checkedExport(bundles[1], "folded");
    EXPECT_EQ(bare["total"], 14);
    EXPECT_TRUE(bare["stacks"].contains("program;[unknown];[unknown];[unknown]")) << bare["stacks"].dump(1);
}

TEST(Exports, OfDamagedBundlesGoAsFarAsTheyCan)
{
    const std::string whole = place("whole.vnt");
    makeSmallBundle(whole);
    std::vector<std::string> bundles;
    for (int variant = 0; variant < 24; ++variant) {
        bundles.push_back(place("damaged" + std::to_string(variant) + ".vnt"));
        fs::copy(whole, bundles.back());
        for (const auto& entry : fs::directory_iterator(bundles.back())) {
            std::string text = contentOf(entry.path());
            const size_t at = text.size() * static_cast<size_t>(variant % 12) / 12;
            if (variant < 12)
                text.resize(at);
            else
                text[at] = static_cast<char>(text[at] ^ 0x55);
            ASSERT_TRUE(sys::writeFileAtomically(entry.path(), std::as_bytes(std::span(text)), 0600).ok());
        }
    }
    checkAllOf(bundles, "damaged");
    EXPECT_NE(exportTo({}, bundles[8], "json").err.find("rumbel: "), std::string::npos) << "damage is told";
}

TEST(Exports, ShowTheSpanAndTheThreadsAskedFor)
{
    const std::string bundle = place("part.vnt");
    makeSmallBundle(bundle);
    struct Row {
        const char* from;
        const char* to;
        std::vector<std::string> threads;
        int samples;
    };
    const Row rows[] = {
        {"", "", {}, 14},   {"15ms", "", {}, 13},        {"", "0.04", {}, 6},   {"30ms", "30.001ms", {}, 1},
        {"3s", "", {}, 0},  {"", "", {"42"}, 10},        {"", "", {"work"}, 4}, {"", "", {"work", "42"}, 14},
        {"", "", {"4"}, 0}, {"0", "28000us", {"43"}, 1},
    };
    for (const Row& row : rows) {
        ExportCommand command;
        command.from = row.from;
        command.to = row.to;
        command.threads = row.threads;
        EXPECT_EQ(checkedExport(bundle, "folded", command)["total"], row.samples) << row.from << " " << row.to;
    }
}

TEST(Exports, AreRefusedWithAReason)
{
    const std::string bundle = place("refused.vnt");
    makeSmallBundle(bundle);
    struct Row {
        const char* what;
        const char* format;
        ExportCommand command;
        std::string path;
        int status;
        const char* error;
    };
    const auto with = [](auto change) {
        ExportCommand command;
        change(command);
        return command;
    };
    const Row rows[] = {
        {"format", "svg", {}, bundle, 2, "no format \"svg\""},
        {"time", "json", with([](auto& c) { c.from = "noon"; }), bundle, 2, "no time"},
        {"negative time", "json", with([](auto& c) { c.to = "-1"; }), bundle, 2, "no time"},
        {"endless time", "json", with([](auto& c) { c.to = "1e300"; }), bundle, 2, "no time"},
        {"backwards", "json", with([](auto& c) {
             c.from = "2";
             c.to = "1";
         }),
         bundle, 2, "before"},
        {"instrument", "json", with([](auto& c) { c.instruments = {"oboe"}; }), bundle, 2, "no instrument"},
        {"not for it", "pprof", with([](auto& c) { c.instruments = {"processcensus"}; }), bundle, 1, "there is: "},
        {"two", "csv", with([](auto& c) {
             c.instruments = {"stacksampler", "processcensus"};
         }),
         bundle, 1, "one"},
        {"no bundle", "json", {}, place("none.vnt"), 1, "none.vnt"},
        {"full disk", "json", with([](auto& c) { c.output = "/dev/full"; }), bundle, 1, "No space left"},
        {"no place", "json", with([](auto& c) { c.output = place("none/out"); }), bundle, 1, "none/out"},
    };
    for (const Row& row : rows) {
        const Outcome outcome = exportTo(row.command, row.path, row.format);
        EXPECT_EQ(outcome.status, row.status) << row.what;
        EXPECT_NE(outcome.err.find(row.error), std::string::npos) << row.what << ": " << outcome.err;
    }
}

TEST(Exports, GoToATerminalOnlyAsText)
{
    const std::string bundle = place("terminal.vnt");
    makeSmallBundle(bundle, {.instruments = {std::string(kStackSamplerId)}});
    int outer = -1;
    int inner = -1;
    ASSERT_EQ(::openpty(&outer, &inner, nullptr, nullptr, nullptr), 0);
    const UniqueFd outerEnd(outer);
    const UniqueFd terminal(inner);
    ExportCommand command;
    command.bundlePath = bundle;
    std::ostringstream err;
    command.format = "pprof";
    EXPECT_EQ(runExport(command, terminal.get(), err), 2);
    EXPECT_NE(err.str().find("nothing for a terminal"), std::string::npos);
    command.format = "folded";
    EXPECT_EQ(runExport(command, terminal.get(), err), 0) << err.str();
}

TEST(Exports, AFileAppearsOnlyWhole)
{
    const std::string bundle = place("empty.vnt");
    makeSmallBundle(bundle, {.hasRecords = false, .hasArchives = false});
    ExportCommand command;
    command.output = place("target-file");
    ASSERT_TRUE(sys::writeFileAtomically(command.output, std::as_bytes(std::span("old", 3)), 0600).ok());
    EXPECT_EQ(exportTo(command, bundle, "json").status, 1) << "nothing to read";
    EXPECT_EQ(contentOf(command.output), "old");
    makeSmallBundle(bundle);
    EXPECT_EQ(exportTo(command, bundle, "json").status, 0);
    EXPECT_EQ(checked("json", {command.output})["samples"], 15);
    for (const auto& entry : fs::directory_iterator(place("")))
        EXPECT_FALSE(entry.path().filename().string().starts_with("target-file.")) << entry.path();
}

/// What people record: a program with threads, by all instruments that need no privilege.
TEST(Exports, OfARealRecordingAreWholeAndAgree)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "a program built with the address sanitizer does not start behind the journal";
#endif
    const std::string bundle = place("real");
    const ToolResult recorded = rumbel({"record", "-i", "stacksampler,heaprecorder,processcensus", "-o", bundle, "--",
                                        programPath("demo_workload"), "1"});
    ASSERT_EQ(recorded.status, 0) << recorded.err;
    checkAllOf({bundle + ".vnt"}, "real");
    const json folded = checkedExport(bundle + ".vnt", "folded");
    const json pprof = checkedExport(bundle + ".vnt", "pprof");
    EXPECT_GT(folded["total"], 100);
    EXPECT_EQ(folded["total"], pprof["totals"][0]);
    EXPECT_NE(folded["stacks"].dump().find("compressBlocks"), std::string::npos);
    const json perfetto = checkedExport(bundle + ".vnt", "perfetto");
    EXPECT_EQ(perfetto["samples"]["rumbel.cpu"]["count"], folded["total"]);
    const ToolResult tool = rumbel({"export", bundle + ".vnt", "--format", "folded"});
    EXPECT_EQ(tool.status, 0) << tool.err;
    EXPECT_EQ(tool.out, contentOf(exportTo({}, bundle + ".vnt", "folded").path));
    EXPECT_EQ(rumbel({"export", bundle + ".vnt"}).status, 2) << "a format is needed";
}

} // namespace
} // namespace vnt::test
