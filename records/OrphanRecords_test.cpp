#include <gtest/gtest.h>

#include "records/OrphanRecordReader.h"
#include "records/OrphanRecordWriter.h"

namespace vnt::orphans {
namespace {

class Listener final : public OrphanRecordHandler {
public:
    void onSearch(uint64_t timeNs, const SearchRecord& search) override
    {
        text += " search " + std::to_string(search.number) + "t" + std::to_string(timeNs);
        last = search;
    }
    void onLeak(const LeakRecord& leak) override
    {
        text += " " + std::to_string(leak.sizeBytes) + "@" + std::to_string(leak.address) + "h"
            + std::to_string(leak.holder) + "/" + std::to_string(leak.stack);
        leaks.push_back(leak);
    }
    void onEnd(const EndRecord& end, bool whole) override
    {
        text += (whole ? " end " : " broken end ") + std::to_string(end.told) + "+" + std::to_string(end.omitted);
    }
    void onNotSearched(const NotSearchedRecord& record) override { text += " not: " + record.text; }
    void onMissingMessages(uint64_t count) override { text += " missing " + std::to_string(count); }
    std::string text;
    SearchRecord last;
    std::vector<LeakRecord> leaks;
};

const SearchRecord kSearch{3,        77,        SearchRecord::k32Bit | SearchRecord::kAtExit,
                           "target", 5'000'000, 200'000'000,
                           4,        1000,      1u << 20,
                           4096,     1,         2,
                           3,        2,         96};
const LeakRecord kFirst{0x7f0000001000, 64, Kind::kCycle, true, 0, 1'000'000, 4, 2, std::string("\0ab", 3)};
const LeakRecord kSecond{0x7f0000000ff0, 32, Kind::kIndirect, false, 1, 900'000, 0, 0, ""};

void writeAll(OrphanRecordWriter& writer)
{
    const uint32_t outer = writer.addNode(0, 0, 0x401000);
    (void)writer.addNode(outer, 0x401000, 0x400800);
    (void)writer.addCutNode();
    writer.addSearch(2'000'000, kSearch);
    writer.addLeak(kFirst);
    writer.addLeak(kSecond);
    writer.addEnd({2, 5, 500});
    writer.addNotSearched({3'000'000, 77, "it ended"});
}

TEST(OrphanRecords, ComeBackAsWritten)
{
    OrphanRecordWriter writer;
    writeAll(writer);
    OrphanRecordReader reader;
    Listener heard;
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    EXPECT_EQ(heard.last, kSearch);
    ASSERT_EQ(heard.leaks.size(), 2u);
    EXPECT_EQ(heard.leaks[0], kFirst);
    EXPECT_EQ(heard.leaks[1], kSecond);
    EXPECT_TRUE(heard.text.ends_with(" end 2+5 not: it ended")) << heard.text;
    ASSERT_EQ(reader.nodeCount(), 3u);
    EXPECT_EQ(reader.node(2).address, 0x400800u);
    EXPECT_EQ(reader.node(2).depth, 2u);
}

TEST(OrphanRecords, ClassesComeBackInAVersionOfTheirOwn)
{
    OrphanRecordWriter writer;
    writer.addSearch(2'000'000, kSearch);
    writer.addLeak(kSecond);
    EXPECT_EQ(static_cast<int>(writer.message()[4]), 1); // which earlier readers take
    LeakRecord object = kFirst;
    object.table = 0x404010;
    object.code = 0x401000;
    writer.addLeak(object);
    writer.addLeak(kSecond);
    EXPECT_EQ(static_cast<int>(writer.message()[4]), 2);
    OrphanRecordReader reader;
    Listener heard;
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    ASSERT_EQ(heard.leaks.size(), 3u);
    EXPECT_EQ(heard.leaks[1].table, 0x404010u);
    EXPECT_EQ(heard.leaks[1].code, 0x401000u);
    EXPECT_EQ(heard.leaks[2].table, 0u);
    EXPECT_EQ(heard.leaks[2].address, kSecond.address);
}

/// A search over several messages, one of which is lost: what holds what and where it came from is not guessed.
TEST(OrphanRecords, AMissingMessageMakesASearchIncomplete)
{
    OrphanRecordWriter writer;
    OrphanRecordReader reader;
    Listener heard;
    writer.addSearch(10, kSearch);
    writer.addLeak(kFirst);
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    writer.messageSent();
    const uint32_t lost = writer.addNode(0, 0, 0x1000);
    writer.addLeak(kFirst);
    writer.messageSent(); // not read
    LeakRecord held = kSecond;
    held.stack = lost;
    held.holder = 2; // which is not the second one told
    writer.addLeak(held);
    writer.addLeak(held);
    writer.addEnd({4, 0, 0});
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    EXPECT_TRUE(heard.text.ends_with("missing 1 32@139637976731632h0/0 32@139637976731632h0/0 broken end 4+0"))
        << heard.text;
}

TEST(OrphanRecords, DamagedMessagesAreRefused)
{
    OrphanRecordWriter writer;
    writeAll(writer);
    const std::vector<std::byte> good(writer.message().begin(), writer.message().end());
    for (size_t length = 0; length < good.size(); ++length) {
        OrphanRecordReader reader;
        Listener heard;
        (void)reader.read(std::span(good).first(length), heard);
        EXPECT_EQ(heard.text.find("it ended"), std::string::npos) << length;
    }
    for (size_t at = 0; at < good.size(); ++at) {
        for (const int change : {0x01, 0x80, 0xff}) {
            auto bad = good;
            bad[at] ^= static_cast<std::byte>(change);
            OrphanRecordReader reader;
            Listener heard;
            (void)reader.read(bad, heard); // the sanitizers watch
            for (size_t i = 0; i < heard.leaks.size(); ++i) {
                EXPECT_LE(heard.leaks[i].holder, i);
                EXPECT_LE(heard.leaks[i].stack, reader.nodeCount());
            }
        }
    }
    struct {
        const char* what;
        size_t at;
        uint8_t value;
    } const rows[] = {{"magic", 0, 0}, {"version", 4, 99}, {"nodes", 15, 0xff}, {"first record", 32, 99}};
    for (const auto& row : rows) {
        auto bad = good;
        bad[row.at] = static_cast<std::byte>(row.value);
        OrphanRecordReader reader;
        Listener heard;
        EXPECT_FALSE(reader.read(bad, heard).ok()) << row.what;
        EXPECT_EQ(heard.text, "") << row.what;
    }
}

} // namespace
} // namespace vnt::orphans
