#include <gtest/gtest.h>

#include <cstring>

#include "records/CensusRecordReader.h"
#include "records/CensusRecordWriter.h"

namespace vnt::census {
namespace {

using Lines = std::vector<std::string>;

class Told final : public CensusRecordHandler {
public:
    Lines lines;

    void onSession(const SessionRecord& session) override { say("session", session.intervalNs); }
    void onProcess(const ProcessRecord& process) override { say("process " + process.name, process.pid); }
    void onSweep(uint64_t timeNs, const SweepRecord& sweep) override { say("sweep", timeNs, sweep.processes); }
    void onUsage(uint64_t timeNs, const ProcessRecord& process, const Usage& usage) override
    {
        std::string values;
        for (const int64_t value : usage)
            values += " " + std::to_string(value);
        say("usage " + process.name + values, timeNs);
    }
    void onStarted(uint64_t timeNs, const ProcessRecord& process) override { say("started " + process.name, timeNs); }
    void onEnded(uint64_t timeNs, const ProcessRecord& process, int64_t status) override
    {
        say("ended " + process.name, timeNs, static_cast<uint64_t>(status + 1));
    }
    void onRenamed(uint64_t timeNs, const ProcessRecord& process) override { say("renamed " + process.name, timeNs); }
    void onLost(uint64_t timeNs, LostCause, uint64_t total) override { say("lost", timeNs, total); }
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t, uint64_t) override { say("cost", timeNs, cpuNs); }
    void onOrphan() override { say("orphan"); }
    void onMissingMessages(uint64_t count) override { say("missing", count); }

private:
    template <typename... Numbers> void say(std::string text, Numbers... numbers)
    {
        ((text += " " + std::to_string(numbers)), ...);
        lines.push_back(text);
    }
};

ProcessRecord process(const char* name, uint32_t pid) { return {pid, 1, 5, 1000, 0, name, "/bin/x"}; }

std::vector<std::byte> copyOf(std::span<const std::byte> bytes) { return {bytes.begin(), bytes.end()}; }

TEST(CensusRecords, WhatIsWrittenIsRead)
{
    CensusRecordWriter writer({1'000'000'000, 0, 2, 4096});
    const uint32_t shell = writer.addProcess(process("sh", 10));
    writer.addSweep(1000, {2, 3, 4, 5});
    Usage first{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 'S'};
    writer.addUsage(shell, {}, first);
    writer.addUsage(shell, first, first); // nothing changed: nothing written
    Told told;
    CensusRecordReader reader;
    ASSERT_TRUE(reader.read(writer.message(), told).ok());
    writer.messageSent();

    Usage second = first;
    at(second, Field::kResidentKiB) = 1;
    const uint32_t child = writer.addProcess(process("child", 11));
    writer.addStarted(990, child); // younger than the sweep: times may step back
    writer.addSweep(2000, {3, 4, 5, 6});
    writer.addUsage(shell, first, second);
    writer.addRenamed(2100, child, "grep", "/bin/grep");
    writer.addEnded(2200, child, 256);
    writer.addEnded(2300, shell, -1);
    writer.addLost(2300, LostCause::kUnread, 1);
    writer.addCost(2400, 77, 2, 0);
    ASSERT_TRUE(reader.read(writer.message(), told).ok());
    EXPECT_EQ(told.lines,
              (Lines{"session 1000000000", "process sh 10", "sweep 1000 2",
                     "usage sh 1 2 3 4 5 6 7 8 9 10 11 12 13 14 83 1000", "process child 11", "started child 990",
                     "sweep 2000 3", "usage sh 1 2 3 1 5 6 7 8 9 10 11 12 13 14 83 2000", "renamed grep 2100",
                     "ended grep 2200 257", "ended sh 2300 0", "lost 2300 1", "cost 2400 77"}));
}

TEST(CensusRecords, ADroppedMessageBeginsAnew)
{
    CensusRecordWriter writer({1, 0, 1, 1});
    writer.addProcess(process("gone", 1));
    writer.messageDropped();
    EXPECT_EQ(writer.addProcess(process("again", 2)), 0u);
    Told told;
    CensusRecordReader reader;
    ASSERT_TRUE(reader.read(writer.message(), told).ok());
    writer.messageSent();
    (void)writer.addProcess(process("lost", 3));
    (void)writer.message();
    writer.messageSent(); // and lost on the way
    writer.addSweep(10, {});
    writer.addUsage(1, {}, {1});
    ASSERT_TRUE(reader.read(writer.message(), told).ok());
    EXPECT_EQ(told.lines, (Lines{"session 1", "process again 2", "missing 1", "sweep 10 0", "orphan"}));
}

TEST(CensusRecords, HostileMessagesAreRefused)
{
    CensusRecordWriter writer({1, 0, 1, 1});
    const uint32_t number = writer.addProcess(process("p", 1));
    writer.addSweep(1, {1, 2, 3, 4});
    writer.addUsage(number, {}, {INT64_MAX, INT64_MIN});
    const auto whole = copyOf(writer.message());
    for (size_t size = 0; size < whole.size(); ++size) {
        Told told;
        CensusRecordReader reader;
        const Status status = reader.read(std::span(whole).first(size), told);
        // A message may end behind any record; anywhere else it breaks off.
        EXPECT_TRUE(size >= kHeaderBytes || !status.ok()) << size;
    }
    for (size_t at = 0; at < whole.size(); ++at) {
        for (const unsigned value : {0x00u, 0x7fu, 0x80u, 0xffu}) {
            auto flipped = whole;
            flipped[at] = static_cast<std::byte>(value);
            Told told;
            CensusRecordReader reader;
            (void)reader.read(flipped, told); // survives it
            EXPECT_LE(told.lines.size(), 8u);
        }
    }
    struct Row {
        const char* what;
        size_t offset;
        uint8_t value;
        Code code;
    } rows[] = {{"magic", 0, 'X', Code::kCorrupt}, {"version", 4, 2, Code::kUnsupported}};
    for (const Row& row : rows) {
        auto damaged = whole;
        damaged[row.offset] = std::byte{row.value};
        Told told;
        CensusRecordReader reader;
        EXPECT_EQ(reader.read(damaged, told).code(), row.code) << row.what;
    }
    Told told;
    CensusRecordReader reader;
    ASSERT_TRUE(reader.read(whole, told).ok());
    EXPECT_FALSE(reader.read(whole, told).ok()) << "the same message twice";
}

} // namespace
} // namespace vnt::census
