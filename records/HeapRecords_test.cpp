#include <gtest/gtest.h>

#include "records/HeapRecordReader.h"
#include "records/HeapRecordWriter.h"

namespace vnt::heap {
namespace {

class Listener final : public HeapRecordHandler {
public:
    void onSession(const SessionRecord& session) override { text += " mask " + std::to_string(session.eventsMask); }
    void onAllocate(const AllocateRecord& r) override
    {
        text += " +" + std::to_string(r.slot) + ":" + std::to_string(r.sizeBytes) + "@" + std::to_string(r.address)
            + "/" + std::to_string(r.stack) + "t" + std::to_string(r.timeNs);
    }
    void onFree(uint64_t timeNs, Function, uint32_t slot) override
    {
        text += " -" + std::to_string(slot) + "t" + std::to_string(timeNs);
    }
    void onFreeUnknown(uint64_t, Function, uint64_t address) override { text += " ?" + std::to_string(address); }
    void onFreedOutside(uint64_t, uint32_t slot) override { text += " o" + std::to_string(slot); }
    void onTarget(uint64_t, const TargetRecord& target) override
    {
        text += " target " + target.name + " " + std::to_string(target.pid);
    }
    void onNoTarget(uint64_t) override { text += " none"; }
    void onExit(uint64_t, uint32_t pid) override { text += " exit " + std::to_string(pid); }
    void onLost(uint64_t, LostCause cause, uint64_t newly, uint64_t) override
    {
        text += " lost " + std::to_string(static_cast<int>(cause)) + "+" + std::to_string(newly);
    }
    void onFault(uint64_t, const FaultRecord& fault) override
    {
        text += " fault " + std::to_string(static_cast<int>(fault.fault)) + "@" + std::to_string(fault.byte) + ":"
            + std::to_string(fault.allocateStack) + "," + std::to_string(fault.freeStack) + ","
            + std::to_string(fault.faultStack);
    }
    void onCount(uint64_t, const CountRecord& count) override
    {
        text += " count " + std::string(nameOf(count.counting)) + "@" + std::to_string(count.object) + "="
            + std::to_string(count.before) + "/" + std::to_string(count.stack) + " by " + std::to_string(count.thread);
    }
    void onClassLook(uint64_t, uint64_t blocks, uint64_t bytes) override
    {
        text += " look " + std::to_string(blocks) + "," + std::to_string(bytes);
    }
    void onClass(uint64_t, const ClassRecord& found) override
    {
        text += " class " + std::to_string(found.table) + "," + std::to_string(found.code) + ":"
            + std::to_string(found.blocks) + "," + std::to_string(found.bytes);
    }
    void onCost(uint64_t, uint64_t, uint64_t events) override { text += " events " + std::to_string(events); }
    void onMissingMessages(uint64_t count) override { text += " missing " + std::to_string(count); }
    std::string text;
};

std::vector<std::byte> copied(std::span<const std::byte> message) { return {message.begin(), message.end()}; }

void writeAll(HeapRecordWriter& writer)
{
    const uint32_t outer = writer.addNode(0, 0, 0x401000);
    const uint32_t inner = writer.addNode(outer, 0x401000, 0x400800);
    writer.addTarget(1000, {77, TargetRecord::k32Bit, "name"});
    writer.addAllocate(1010, Function::kCalloc, 0, inner, 64, 0x7f0000001000);
    writer.addAllocate(1020, Function::kMalloc, 1, 0, 0, 0x7f0000000ff0);
    writer.addFree(1030, Function::kMalloc, 0);
    writer.addFreeUnknown(1030, Function::kMalloc, 5);
    writer.addFreedOutside(1040, 1);
    writer.addLost(1050, LostCause::kRingFull, 9);
    writer.addFault(1055, {Fault::kWritten, 0x7f0000001000, 5, inner, outer, 9});
    writer.addCost(1060, 12);
    writer.addExit(1070, 77);
    writer.addNoTarget(1070);
}

TEST(HeapRecords, ComeBackAsWritten)
{
    HeapRecordWriter writer({0x2d0800, 0});
    writeAll(writer);
    HeapRecordReader reader;
    Listener heard;
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    EXPECT_EQ(heard.text,
              " mask 2951168 target name 77 +0:64@139637976731648/2t1010 +1:0@139637976731632/0t1020 -0t1030 ?5 o1 "
              "lost 0+9 fault 1@5:2,1,0 events 4 exit 77 none");
    ASSERT_EQ(reader.nodeCount(), 2u);
    EXPECT_EQ(reader.node(2).address, 0x400800u);
    EXPECT_EQ(reader.node(2).caller, 1u);
}

uint16_t versionOf(std::span<const std::byte> message) { return static_cast<uint16_t>(message[4]); }

void writeObjects(HeapRecordWriter& writer)
{
    const uint32_t stack = writer.addNode(0, 0, 0x401000);
    writer.addCount(10, {Counting::kRef, 77, stack, 1, 0x7f0000001000});
    writer.addCount(20, {Counting::kUnref, 78, 9, 2, 0x7f0000000ff0}); // a stack that is not known
    writer.addCount(20, {Counting::kRelease, 0, 0, 0, 16});
    writer.addClassLook(30, 5, 500);
    writer.addClass(30, {0x404010, 0x401000, 3, 96});
    writer.addFault(40, {Fault::kReleased, 0x7f0000001000, 8, stack, stack, stack});
}

TEST(HeapRecords, CountsAndClassesComeBackInAVersionOfTheirOwn)
{
    for (const uint32_t mask : {0x302df808u, 0x003d0800u}) {
        HeapRecordWriter writer({mask, 0});
        writeObjects(writer);
        EXPECT_EQ(versionOf(writer.message()), 2);
        HeapRecordReader reader;
        Listener heard;
        ASSERT_TRUE(reader.read(writer.message(), heard).ok());
        EXPECT_EQ(heard.text,
                  " mask " + std::to_string(mask)
                      + " count g_object_ref@139637976731648=1/1 by 77 count g_object_unref@139637976731632=2/0 by 78"
                        " count CFRelease@16=0/0 by 0 look 5,500 class 4210704,4198400:3,96 fault 3@8:1,1,1");
    }
    HeapRecordWriter plain({0x2d0800, 0});
    EXPECT_EQ(versionOf(plain.message()), 1); // which earlier readers take
}

TEST(HeapRecords, DamagedCountsAndClassesAreRefused)
{
    HeapRecordWriter writer({0x303df808, 0});
    writeObjects(writer);
    const auto good = copied(writer.message());
    for (size_t at = 0; at < good.size(); ++at) {
        for (const int change : {0x01, 0x80, 0xff}) {
            auto bad = good;
            bad[at] ^= static_cast<std::byte>(change);
            HeapRecordReader reader;
            Listener heard;
            (void)reader.read(bad, heard); // the sanitizers watch
        }
    }
    for (const int head : {0x7e, 0xfe, 0x2f, 0xff}) { // a call or a kind that is not known
        HeapRecordWriter one({0x303df808, 0});
        auto message = copied(one.message());
        message.push_back(static_cast<std::byte>(head));
        message.insert(message.end(), 8, std::byte{0});
        HeapRecordReader reader;
        Listener heard;
        EXPECT_EQ(reader.read(message, heard).code(), Code::kCorrupt) << head;
    }
}

TEST(HeapRecords, ADroppedMessageLosesEventsAndNoDefinitions)
{
    HeapRecordWriter writer({1, 0});
    const uint32_t first = writer.addNode(0, 0, 0x1000);
    writer.addAllocate(10, Function::kMalloc, 0, first, 8, 0x10);
    writer.messageDropped();
    const uint32_t second = writer.addNode(first, 0x1000, 0x2000);
    writer.addAllocate(20, Function::kMalloc, 1, second, 8, 0x20);
    HeapRecordReader reader;
    Listener heard;
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    EXPECT_EQ(heard.text, " mask 1 +1:8@32/2t20");
    EXPECT_EQ(reader.node(2).address, 0x2000u);
}

TEST(HeapRecords, AMissingMessageTakesItsStacksWithIt)
{
    HeapRecordWriter writer({1, 0});
    HeapRecordReader reader;
    Listener heard;
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    writer.messageSent();
    const uint32_t lost = writer.addNode(0, 0, 0x1000);
    writer.messageSent(); // not read
    const uint32_t child = writer.addNode(lost, 0x1000, 0x2000);
    writer.addAllocate(20, Function::kMalloc, 1, child, 8, 0x20);
    ASSERT_TRUE(reader.read(writer.message(), heard).ok());
    EXPECT_EQ(heard.text, " mask 1 missing 1 +1:8@32/0t20"); // without its stack, not with a wrong one
}

/// Whatever is done to a message, reading it ends, and nothing is told that a limit forbids.
TEST(HeapRecords, DamagedMessagesAreRefused)
{
    HeapRecordWriter writer({0x2d0800, 0});
    writeAll(writer);
    const auto good = copied(writer.message());
    for (size_t length = 0; length < good.size(); ++length) {
        HeapRecordReader reader;
        Listener heard;
        const bool ok = reader.read(std::span(good).first(length), heard).ok();
        // A cut between two events cannot be told from an end.
        if (length < kHeaderBytes + 4) {
            EXPECT_FALSE(ok) << length;
        }
    }
    for (size_t at = 0; at < good.size(); ++at) {
        for (const int change : {0x01, 0x80, 0xff}) {
            auto bad = good;
            bad[at] ^= static_cast<std::byte>(change);
            HeapRecordReader reader;
            Listener heard;
            (void)reader.read(bad, heard); // the sanitizers watch
            EXPECT_LE(reader.nodeCount(), kMaxNodes);
        }
    }
    struct {
        const char* what;
        size_t at;
        uint8_t value;
    } const rows[] = {{"magic", 0, 0}, {"version", 4, 99}, {"nodes", 15, 0xff}, {"definitions' length", 19, 0x7f}};
    for (const auto& row : rows) {
        auto bad = good;
        bad[row.at] = static_cast<std::byte>(row.value);
        HeapRecordReader reader;
        Listener heard;
        EXPECT_FALSE(reader.read(bad, heard).ok()) << row.what;
        EXPECT_EQ(heard.text, "") << row.what;
    }
}

TEST(HeapRecords, AnEventTakesAFewBytes)
{
    HeapRecordWriter writer({1, 0});
    const uint32_t stack = writer.addNode(0, 0, 0x401000);
    const size_t before = writer.sizeBytes();
    for (uint64_t i = 0; i < 1000; ++i) {
        writer.addAllocate(1'000'000 + i * 300, Function::kMalloc, static_cast<uint32_t>(i), stack, 100,
                           0x7f0000000000 + i * 112);
        writer.addFree(1'000'000 + i * 300 + 150, Function::kMalloc, static_cast<uint32_t>(i));
    }
    EXPECT_LT(writer.sizeBytes() - before, 2000u * 8);
}

} // namespace
} // namespace vnt::heap
