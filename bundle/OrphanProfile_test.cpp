#include "bundle/OrphanProfile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bundle/TestBundle.h"
#include "records/OrphanRecordWriter.h"

namespace vnt {
namespace {

using orphans::Kind;
using orphans::LeakRecord;
using orphans::SearchRecord;
using test::kModuleStart;
using test::kTextAddress;

constexpr uint64_t kStart = 100 * test::kSecondNs;
constexpr uint64_t kMain = kModuleStart + 0x10;
constexpr uint64_t kMake = kModuleStart + 0x110;
constexpr uint64_t kCopy = kModuleStart + 0x210;

struct OrphanProfileTest : testing::Test {
    std::string directory;
    Ref<MutableDictionary> signatures;
    orphans::OrphanRecordWriter writer;
    test::StreamText stream;
    uint32_t make = 0, copy = 0;

    void SetUp() override
    {
        directory = test::freshDirectory("orphans") + "/b.vnt";
        const std::string program = test::freshDirectory("orphans") + "/program";
        test::writeText(program,
                        test::testElf<test::Elf64>({{"main", kTextAddress, 0x100},
                                                    {"make", kTextAddress + 0x100, 0x100},
                                                    {"copy", kTextAddress + 0x200, 0x100}},
                                                   "p"));
        const auto process = test::processSignature(
            42, "program", {test::image(kModuleStart, test::kTextSize, test::kTextOffset, program, "70")});
        signatures = test::signaturesOf({{42, process}});
        const uint32_t main = writer.addNode(0, 0, kMain);
        make = writer.addNode(main, kMain, kMake);
        copy = writer.addNode(main, kMain, kCopy);
    }
    void search(uint32_t number, const std::vector<LeakRecord>& leaks, uint64_t told)
    {
        SearchRecord record;
        record.number = number;
        record.pid = 42;
        record.leaks = leaks.size();
        writer.addSearch(kStart + number, record);
        for (const LeakRecord& leak : leaks)
            writer.addLeak(leak);
        writer.addEnd({told, 0, 0});
    }
    OrphanProfile read()
    {
        stream.add(writer.message());
        test::writeText(freshBundle() + "/" + std::string(kOrphanFinderId),
                        test::archiveOf(signatures.get(), 42, stream.messages()));
        test::writeText(directory + "/" + std::string(kOrphanFinderId) + std::string(kMessageStreamSuffix),
                        stream.text());
        bundle = std::make_unique<Bundle>(Bundle::open(directory).take());
        return readOrphans(*bundle, bundle->instrument(kOrphanFinderId));
    }
    std::string freshBundle()
    {
        VNT_CHECK(sys::makeDirectories(directory, 0700).ok());
        return directory;
    }
    std::unique_ptr<Bundle> bundle;
};

LeakRecord leak(uint64_t size, Kind kind, uint32_t holder, uint32_t stack, bool isNew = true)
{
    LeakRecord record;
    record.address = 0x1000 * size;
    record.sizeBytes = size;
    record.kind = kind;
    record.holder = holder;
    record.stack = stack;
    record.timeNs = kStart;
    record.isNew = isNew;
    return record;
}

/// Only the latest search's leaks count; a suppressed one takes what it holds with it, whoever allocated that.
TEST_F(OrphanProfileTest, TheLatestSearchIsSummedUpWithoutWhatIsSuppressed)
{
    search(1, {leak(1000, Kind::kDirect, 0, make)}, 1);
    search(2,
           {leak(10, Kind::kDirect, 0, make, false), leak(20, Kind::kIndirect, 1, copy),
            leak(40, Kind::kCycle, 0, copy), leak(80, Kind::kIndirect, 3, 0)},
           4);
    const OrphanProfile profile = read();
    ASSERT_EQ(profile.searches.size(), 2u);
    EXPECT_TRUE(profile.searches[1].whole);
    EXPECT_EQ(profile.searches[1].newLeaks, 3u);
    const struct {
        const char* what;
        const char* suppressions;
        uint64_t shown, bytes, suppressed;
        std::string sites;
    } rows[] = {{"none", "", 4, 150, 0, "[no stack] 80, copy 60, make 10, "},
                {"a holder", "leak:make", 2, 120, 2, "[no stack] 80, copy 40, "},
                {"a caller", "leak:main", 0, 0, 4, ""},
                {"a held one only", "leak:copy", 1, 10, 3, "make 10, "}};
    for (const auto& row : rows) {
        const OrphanSummary summary = summarizeOrphans(profile, Suppressions::parse(row.suppressions).take());
        std::string sites;
        for (const OrphanSite& site : summary.sites)
            sites += profile.symbolizer->symbol(site.symbol).function + " " + std::to_string(site.counts.bytes) + ", ";
        EXPECT_EQ(summary.shown.leaks, row.shown) << row.what;
        EXPECT_EQ(summary.shown.bytes, row.bytes) << row.what;
        EXPECT_EQ(summary.suppressed.leaks, row.suppressed) << row.what;
        EXPECT_EQ(sites, row.sites) << row.what;
    }
    EXPECT_THAT(bundle->remarks().texts(), testing::IsEmpty());
    // Of the time of the first search, that one's leaks.
    ReadingOptions options;
    options.span = {kStart + 1, kStart + 2};
    const OrphanProfile early = readOrphans(*bundle, bundle->instrument(kOrphanFinderId), options);
    ASSERT_EQ(early.searches.size(), 1u);
    ASSERT_EQ(early.leaks.size(), 1u);
    EXPECT_EQ(early.leaks[0].sizeBytes, 1000u);
}

TEST_F(OrphanProfileTest, WhatMakesAResultUncertainIsRemarked)
{
    SearchRecord record;
    record.number = 1;
    record.pid = 42;
    record.flags = SearchRecord::kNoRegisters | SearchRecord::kUndecided | SearchRecord::kInPlace;
    record.lostEvents = 7;
    record.unreadableBytes = 4096;
    writer.addSearch(kStart, record);
    writer.addEnd({5, 3, 100}); // of five, none is there
    writer.addNotSearched({kStart, 42, "it was killed"});
    const OrphanProfile profile = read();
    std::string all;
    for (const std::string& text : bundle->remarks().texts())
        all += text + "\n";
    for (const char* part : {"not whole", "3 leaks are only counted", "lost 7", "reallocation", "registers",
                             "4096 bytes", "too large to be copied", "it was killed"})
        EXPECT_NE(all.find(part), std::string::npos) << part << "\n" << all;
    EXPECT_FALSE(profile.searches[0].whole);
}

TEST(Suppressions, MatchAsTheirUsersExpect)
{
    const struct {
        const char* pattern;
        const char* name;
        bool matches;
    } rows[] = {
        {"make", "remake(int)", true},
        {"^make", "remake(int)", false},
        {"^make", "make(int)", true},
        {"int)$", "make(int)", true},
        {"make$", "make(int)", false},
        {"^make$", "make", true},
        {"^make$", "makemake", false},
        {"m*e", "xmaybeex", true},
        {"^m*k*$", "make(k", true},
        {"^m*k$", "make", false},
        {"a*a", "a", false},
        {"*", "anything", true},
        {"^a*b*a$", "aba", true},
        {"^a*b*a$", "ab", false},
        {"operator*", "operator new", true},
        {"lib*.so", "libx.so.6", true},
        {"$", "anything", true},
        {"^*x$", "axx", true},
    };
    for (const auto& row : rows) {
        const auto parsed = Suppressions::parse(std::string("leak:") + row.pattern);
        ASSERT_TRUE(parsed.ok()) << row.pattern;
        Symbol symbol;
        symbol.function = row.name;
        EXPECT_EQ(parsed.value().matches(symbol), row.matches) << row.pattern << " in " << row.name;
        std::swap(symbol.function, symbol.module);
        if (row.matches) {
            EXPECT_TRUE(parsed.value().matches(symbol)) << row.pattern << " in a module";
        }
    }
    for (const char* wrong : {"leak", "leak:", "leak:  ", "race:x", "x", "leak:a\n\n# b\nleak b"})
        EXPECT_EQ(Suppressions::parse(wrong).code(), Code::kInvalid) << wrong;
    EXPECT_TRUE(Suppressions::parse("\n # only words\r\n\t\n").value().empty());
    EXPECT_NE(Suppressions::parse("leak:a\n\n# b\nleak b").status().message().find("line 4"), std::string::npos);
}

} // namespace
} // namespace vnt
