#include "rumbel/report/report.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "bundle/TestBundle.h"
#include "rumbel/report/diff.h"
#include "rumbel/report/printable.h"

namespace vnt {
namespace {

using stacks::LostCause;
using stacks::SessionRecord;
using stacks::StackRecordWriter;
using test::kKernelStart;
using test::kModuleStart;
using test::kTextAddress;

constexpr uint64_t kStart = 100 * test::kSecondNs;

struct Outcome {
    int status = 0;
    std::string out;
    std::string err;
};

Outcome report(const ReportOptions& options)
{
    std::ostringstream out;
    std::ostringstream err;
    const int status = runReport(options, out, err);
    return {status, out.str(), err.str()};
}

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

/// One bundle of two threads: 6 samples in main > work > leaf, 3 in main > work, 1 in the kernel below work.
struct ReportTest : testing::Test {
    std::string directory = test::freshDirectory("report");
    std::string path = directory + "/run.vnt";
    std::string archive;
    std::string stream;

    void SetUp() override
    {
        const std::string module = directory + "/program";
        test::writeText(module,
                        test::testElf<test::Elf64>({{"main", kTextAddress, 0x100},
                                                    {"_Z4workv", kTextAddress + 0x100, 0x100},
                                                    {"leaf\x1b[31m", kTextAddress + 0x200, 0x100}},
                                                   "p"));
        const auto process = test::processSignature(
            42, "program", {test::image(kModuleStart, test::kTextSize, test::kTextOffset, module, "70")});
        const auto signatures = test::signaturesOf({{42, process}, {0, test::kernelSignature()}});

        StackRecordWriter writer(SessionRecord{1'000'000, 3, 0});
        writer.addThread(0, {42, 42, 0, "program"});
        writer.addThread(1, {42, 43, 0, "helper"});
        const uint32_t main = writer.addNode(0, 0, kModuleStart + 0x10);
        const uint32_t work = writer.addNode(main, kModuleStart + 0x10, kModuleStart + 0x110);
        const uint32_t leaf = writer.addNode(work, kModuleStart + 0x110, kModuleStart + 0x210);
        const uint32_t kernel = writer.addNode(work, kModuleStart + 0x110, kKernelStart + 0x1010);
        for (uint64_t i = 0; i < 6; ++i)
            writer.addSample(kStart + i, 0, leaf);
        for (uint64_t i = 0; i < 3; ++i)
            writer.addSample(kStart + i, 1, work);
        StreamText messages;
        messages.addFrom(writer);
        writer.addSample(kStart + 10, 1, kernel);
        writer.addLost(kStart + 10, LostCause::kRingFull, 4);
        writer.addLost(kStart + 10, LostCause::kThrottled, 2);
        writer.addCost(kStart + 10, 3'000'000);
        messages.addFrom(writer);
        archive = test::archiveOf(signatures.get(), 42, messages.messages());
        stream = messages.text();
        test::writeBundle(path, archive, stream);
    }
    using StreamText = test::StreamText;
};

TEST_F(ReportTest, TextIsComplete)
{
    ReportOptions options;
    options.bundlePath = path;
    options.tree = true;
    const Outcome outcome = report(options);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    const std::string expected = R"(DIR/run.vnt

Stack Sampler
  Target      program, process 42 (/opt/program)
  Recorded    2023-11-14 22:13:20 UTC, 2.000 s
  Samples     10, one every 1.00 ms of processor time: 10.00 ms, in 2 threads
  Lost        4 samples lost (28.57 %), 2 throttled
  Truncated   0 stacks without the outer frames
  Recorder    3.00 ms of processor time (0.15 % of one processor)

  self %      self  total %     total  function      module
   60.00         6    60.00         6  leaf\x1b[31m  program
   30.00         3   100.00        10  work()        program
   10.00         1    10.00         1  ext4_read     [ext4]
    0.00         0   100.00        10  main          program

  total %     total   self %      self  call tree
   100.00        10     0.00         0  main
   100.00        10    30.00         3   work()
    60.00         6    60.00         6    leaf\x1b[31m
    10.00         1    10.00         1    ext4_read
)";
    EXPECT_EQ(replaced(outcome.out, directory, "DIR"), expected);

    options.tree = true;
    options.top = 2;
    options.minPercent = 20;
    const std::string shortened = report(options).out;
    EXPECT_NE(shortened.find("   10.00         1                     in 2 further functions\n"), std::string::npos)
        << shortened;
    EXPECT_NE(shortened.find("  (1 branch below 20 % left out)\n"), std::string::npos) << shortened;
    EXPECT_EQ(shortened.find("ext4_read"), std::string::npos);
}

TEST_F(ReportTest, JsonKeepsItsContract)
{
    ReportOptions options;
    options.bundlePath = path + "/";
    options.json = true;
    options.top = 1; // JSON is whole all the same
    options.tree = true;
    const Outcome outcome = report(options);
    EXPECT_EQ(outcome.status, 0);
    const auto json = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(json.at("version"), 1);
    EXPECT_EQ(json.at("remarks").size(), 0u);
    const auto& stacks = json.at("instruments").at("quillon.vnt.stacksampler");
    const nlohmann::json expected = {
        {"name", "Stack Sampler"},
        {"pid", 42},
        {"target", "program"},
        {"executable", "/opt/program"},
        {"interval_us", 1000},
        {"start_time", 1700000000},
        {"stop_time", 1700000002},
        {"duration_ms", 2000.0},
        {"samples", 10},
        {"lost", 4},
        {"throttled", 2},
        {"truncated", 0},
        {"events_lost", 0},
        {"messages", 2},
        {"messages_lost", 0},
        {"messages_damaged", 0},
        {"blocked_samples", 0},
        {"blocked_ms", 0.0},
        {"recorder_cpu_ms", 3.0},
        {"kernel_release", "6.1.0-test"},
        {"threads",
         {{{"pid", 42}, {"tid", 42}, {"name", "program"}, {"samples", 6}},
          {{"pid", 42}, {"tid", 43}, {"name", "helper"}, {"samples", 4}}}},
        {"functions",
         {{{"name", "leaf\x1b[31m"},
           {"self", 6},
           {"total", 6},
           {"module", "program"},
           {"file", directory + "/program"}},
          {{"name", "work()"}, {"self", 3}, {"total", 10}, {"module", "program"}, {"file", directory + "/program"}},
          {{"name", "ext4_read"}, {"self", 1}, {"total", 1}, {"module", "[ext4]"}},
          {{"name", "main"}, {"self", 0}, {"total", 10}, {"module", "program"}, {"file", directory + "/program"}}}},
        {"tree",
         {{{"name", "main"}, {"parent", -1}, {"self", 0}, {"total", 10}},
          {{"name", "work()"}, {"parent", 0}, {"self", 3}, {"total", 10}},
          {{"name", "leaf\x1b[31m"}, {"parent", 1}, {"self", 6}, {"total", 6}},
          {{"name", "ext4_read"}, {"parent", 1}, {"self", 1}, {"total", 1}}}},
    };
    EXPECT_EQ(stacks, expected) << outcome.out;
}

TEST_F(ReportTest, TablesListWhatWasAskedFor)
{
    struct Row {
        const char* what;
        ReportOptions options;
        std::string table; ///< behind the summary
    };
    std::vector<Row> rows(5);
    rows[0] = {"modules", {}, R"(
  self %      self  total %     total  module
   90.00         9   100.00        10  program
   10.00         1    10.00         1  [ext4]
)"};
    rows[0].options.by = ReportOptions::By::kModule;
    rows[1] = {"threads", {}, R"(
       %   samples     blocked      pid      tid  thread
   60.00         6        0 ns       42       42  program
   40.00         4        0 ns       42       43  helper
)"};
    rows[1].options.by = ReportOptions::By::kThread;
    rows[2] = {"lines, where no file has any", {}, R"(
  self %      self  total %     total  line          module
   60.00         6    60.00         6  leaf\x1b[31m  program
   30.00         3   100.00        10  work()        program
   10.00         1    10.00         1  ext4_read     [ext4]
    0.00         0   100.00        10  main          program
)"};
    rows[2].options.by = ReportOptions::By::kLine;
    rows[3] = {"one function", {}, R"(
work()
  Module      DIR/program
  Self        3 samples, 30.00 %
  Total       10 samples, 100.00 %

  called by
   100.00        10  main

  calls
    60.00         6  leaf\x1b[31m
    10.00         1  ext4_read
)"};
    rows[3].options.function = "work";
    rows[4] = {"the first nanoseconds", {}, R"(
  self %      self  total %     total  function      module
   57.14         4    57.14         4  leaf\x1b[31m  program
   42.86         3   100.00         7  work()        program
    0.00         0   100.00         7  main          program
)"};
    rows[4].options.fromNs = 0;
    rows[4].options.toNs = 4;
    for (Row& row : rows) {
        row.options.bundlePath = path;
        const Outcome outcome = report(row.options);
        EXPECT_EQ(outcome.status, 0) << row.what << outcome.err;
        EXPECT_NE(outcome.out.find("  Lost        4 samples lost"), std::string::npos) << "losses are always shown";
        const std::string text = replaced(outcome.out, directory, "DIR");
        EXPECT_TRUE(text.ends_with("of one processor)\n" + row.table)) << row.what << "\n" << text;
    }
}

TEST_F(ReportTest, OptionsThatFitNoBundleAreErrors)
{
    ReportOptions empty;
    empty.bundlePath = path;
    ReportOptions other = empty;
    other.instruments = {"heaprecorder"};
    EXPECT_EQ(report(other).err, "rumbel error: " + path + ": holds nothing of heaprecorder\n");
    ReportOptions backwards = empty;
    backwards.fromNs = 5;
    backwards.toNs = 5;
    EXPECT_EQ(report(backwards).err, "rumbel error: the time to read ends before it begins\n");
    ASSERT_EQ(::unlink((path + "/quillon.vnt.stacksampler").c_str()), 0);
    ReportOptions timed = empty;
    timed.fromNs = 5;
    EXPECT_EQ(report(timed).status, 1) << "nobody knows when it began";

    const struct {
        const char* text;
        std::optional<uint64_t> ns;
    } times[] = {{"2", 2'000'000'000},
                 {"1.5s", 1'500'000'000},
                 {"200ms", 200'000'000},
                 {"30us", 30'000},
                 {"0", 0},
                 {"2m", 120'000'000'000},
                 {"-1", {}},
                 {"", {}},
                 {"1e300", {}},
                 {"5 s", {}},
                 {"nan", {}},
                 {"99999999999999", {}},
                 {"1.5parsecs", {}}};
    for (const auto& row : times) {
        const auto parsed = parseTimeNs(row.text);
        EXPECT_EQ(parsed.ok() ? std::optional(parsed.value()) : std::nullopt, row.ns) << row.text;
    }
}

/// A second recording of the program, in which leaf() took twice the share.
TEST_F(ReportTest, ADifferenceBeyondTheThresholdHasAStatusOfItsOwn)
{
    StackRecordWriter writer(SessionRecord{1'000'000, 3, 0});
    writer.addThread(0, {42, 42, 0, "program"});
    const uint32_t main = writer.addNode(0, 0, kModuleStart + 0x10);
    const uint32_t work = writer.addNode(main, kModuleStart + 0x10, kModuleStart + 0x110);
    const uint32_t leaf = writer.addNode(work, kModuleStart + 0x110, kModuleStart + 0x210);
    for (uint64_t i = 0; i < 40; ++i)
        writer.addSample(kStart + i, 0, i < 36 ? leaf : work);
    StreamText messages;
    messages.addFrom(writer);
    const std::string later = directory + "/later.vnt";
    test::writeBundle(later, archive, messages.text());

    const auto difference = [](DiffOptions options, const std::string& before, const std::string& after) {
        std::ostringstream out;
        std::ostringstream err;
        options.before = before;
        options.after = after;
        const int status = runDiff(options, out, err);
        return Outcome{status, out.str(), err.str()};
    };
    DiffOptions options;
    const Outcome plain = difference(options, path, later);
    EXPECT_EQ(plain.status, 0);
    const std::string expected = R"(DIR/run.vnt
DIR/later.vnt

samples by function: 10 samples before, 40 samples after
   change        before  share %         after  share %  name
   +30.00             6    60.00            36    90.00  leaf\x1b[31m (program)
   -20.00             3    30.00             4    10.00  work() (program)
   -10.00             1    10.00             0     0.00  ext4_read ([ext4])
)";
    EXPECT_EQ(replaced(plain.out, directory, "DIR"), expected);
    for (const auto& [threshold, status] : {std::pair(29.9, 3), std::pair(30.1, 0)}) {
        options.thresholdPercent = threshold;
        EXPECT_EQ(difference(options, path, later).status, status) << threshold;
    }
    options.thresholdPercent = 0;
    EXPECT_EQ(difference(options, path, path).status, 0) << "nothing grew";
    options.report.json = true;
    const Outcome json = difference(options, path, later);
    EXPECT_EQ(json.status, 3);
    const auto whole = nlohmann::json::parse(json.out);
    EXPECT_EQ(whole.at("grown"), 1);
    EXPECT_EQ(whole.at("tables")[0].at("entries")[0].at("growth_percent"), 30.0);
    EXPECT_EQ(whole.at("tables")[0].at("entries")[0].at("grew"), true);
    EXPECT_EQ(difference(options, path, directory + "/absent.vnt").status, 1);
}

TEST(Diff, GrowthOfAmountsIsAPartOfTheWhole)
{
    MeasuredTable before{"bytes", "bytes", false, 200, {{"same", 100}, {"gone", 100}}};
    MeasuredTable after{"bytes", "bytes", false, 250, {{"same", 100}, {"new", 150}}};
    const auto rows = compare(before, after);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].name, "new");
    EXPECT_EQ(rows[0].growthPercent, 75);
    EXPECT_EQ(rows[1].growthPercent, -50);
    EXPECT_EQ(compare({"", "", false, 0, {}}, after)[0].growthPercent, 60) << "nothing before: of what there is now";
}

TEST_F(ReportTest, ErrorsNameWhatIsWrong)
{
    const std::string empty = test::freshDirectory("report/empty.vnt");
    const std::string hollow = test::freshDirectory("report/hollow.vnt");
    test::writeText(hollow + "/quillon.vnt.stacksampler", "nonsense");
    const struct {
        const char* what;
        std::string path;
        std::string err;
    } rows[] = {
        {"absent", directory + "/absent.vnt", "rumbel error: DIR/absent.vnt: No such file or directory\n"},
        {"not a bundle", empty, "rumbel error: DIR/empty.vnt: holds no recording\n"},
        {"nothing readable", hollow, "rumbel error: nothing in the bundle could be read\n"},
    };
    for (const auto& row : rows) {
        ReportOptions options;
        options.bundlePath = row.path;
        const Outcome outcome = report(options);
        EXPECT_EQ(outcome.status, 1) << row.what;
        EXPECT_EQ(outcome.out, "") << row.what;
        EXPECT_TRUE(replaced(outcome.err, directory, "DIR").ends_with(row.err)) << row.what << ": " << outcome.err;
    }
}

TEST_F(ReportTest, PartsOfABundleAreReadAlone)
{
    ReportOptions options;
    options.bundlePath = path;
    const std::string archivePath = path + "/quillon.vnt.stacksampler";
    ASSERT_EQ(::unlink(archivePath.c_str()), 0);
    const Outcome samplesOnly = report(options);
    EXPECT_EQ(samplesOnly.status, 0);
    EXPECT_NE(samplesOnly.out.find("0x7f0000000210"), std::string::npos) << samplesOnly.out;
    EXPECT_NE(samplesOnly.err.find("the archive of quillon.vnt.stacksampler cannot be read"), std::string::npos);

    test::writeText(archivePath, archive);
    ASSERT_EQ(::unlink((archivePath + ".messagequeue").c_str()), 0);
    const Outcome archiveOnly = report(options);
    EXPECT_EQ(archiveOnly.status, 0);
    EXPECT_NE(archiveOnly.out.find("There are no samples."), std::string::npos);
    EXPECT_NE(archiveOnly.err.find("the messages of quillon.vnt.stacksampler cannot be read"), std::string::npos);
}

TEST_F(ReportTest, ABundleCutAnywhereIsReadAsFarAsItGoes)
{
    ReportOptions options;
    options.bundlePath = path;
    options.json = true;
    const std::string streamPath = path + "/quillon.vnt.stacksampler.messagequeue";
    uint64_t lastSamples = 0;
    for (size_t size = 0; size < stream.size(); ++size) {
        test::writeText(streamPath, stream.substr(0, size));
        const Outcome outcome = report(options);
        ASSERT_EQ(outcome.status, 0) << size;
        const auto json = nlohmann::json::parse(outcome.out);
        ASSERT_FALSE(json.at("remarks").empty()) << "cut at " << size;
        const uint64_t samples = json.at("instruments").at("quillon.vnt.stacksampler").at("samples");
        EXPECT_GE(samples, lastSamples) << size;
        lastSamples = samples;
    }
    EXPECT_EQ(lastSamples, 9u); // the first message is whole long before the end
    test::writeText(streamPath, stream);
    for (size_t size = 0; size < archive.size(); ++size) {
        test::writeText(path + "/quillon.vnt.stacksampler", archive.substr(0, size));
        const Outcome outcome = report(options);
        ASSERT_EQ(outcome.status, 0) << size;
        ASSERT_NE(outcome.err, "") << "cut at " << size;
    }
}

TEST(Printable, LeavesNothingThatATerminalWouldObey)
{
    const struct {
        std::string text;
        std::string shown;
    } rows[] = {
        {"plain <b>&amp;", "plain <b>&amp;"},
        {"naïve \xf0\x9f\x98\x80", "naïve \xf0\x9f\x98\x80"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\x1b[2J\r\n\t\x7f", "\\x1b[2J\\x0d\\x0a\\x09\\x7f"},
        {"\xc2\x9b", "\\xc2\\x9b"},
        {"\xe2\x80\xae"
         "evil",
         "\\xe2\\x80\\xaeevil"},
        {"\xff\xc0\x80", "\\xff\\xc0\\x80"},
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(printable(row.text), row.shown);
    const std::string wide(60, 'x');
    EXPECT_EQ(shortFunctionName("f(int)"), "f(int)");
    EXPECT_EQ(shortFunctionName(wide + "(int, void (*)(char)) const"), wide + "(...) const");
    EXPECT_EQ(shortFunctionName("(anonymous namespace)::" + wide + "()"), "(anonymous namespace)::" + wide + "()");
    EXPECT_EQ(shortFunctionName(wide + "abc)"), wide + "abc)");
    EXPECT_EQ(grouped(1234567), "1,234,567");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(percent(1, 3), "33.33");
    EXPECT_EQ(percent(0, 0), "0.00");
}

} // namespace
} // namespace vnt
