#include "bundle/RecordReading.h"

#include <gtest/gtest.h>

#include "bundle/RecordSorter.h"
#include "bundle/TestBundle.h"
#include "records/HeapRecordWriter.h"

namespace vnt {
namespace {

using test::kSecondNs;

std::vector<uint64_t> sorted(const std::vector<uint64_t>& times, RecordTotals& totals)
{
    std::vector<uint64_t> delivered;
    const RecordSink sink = [&](const Record& record) {
        EXPECT_EQ(record.name, std::to_string(record.timeNs)) << "views follow their record";
        EXPECT_EQ(record.stack.size(), 1u);
        EXPECT_EQ(record.stack[0], record.timeNs);
        EXPECT_EQ(record.values[0].value, static_cast<int64_t>(record.timeNs));
        delivered.push_back(record.timeNs);
        return true;
    };
    RecordSorter sorter(sink, totals);
    for (const uint64_t time : times) {
        const std::string name = std::to_string(time);
        const Record::Value values[] = {{"time", static_cast<int64_t>(time)}};
        Record record;
        record.timeNs = time;
        record.name = name;
        record.stack = {&time, 1};
        record.values = values;
        sorter.add(record);
    }
    sorter.finish();
    return delivered;
}

TEST(RecordSorter, OrdersWhatComesNearlyOrdered)
{
    // Two processors, each ordered, read in turns of half a second; over a minute.
    std::vector<uint64_t> times;
    for (uint64_t turn = 0; turn < 120; ++turn) {
        for (uint64_t cpu = 0; cpu < 2; ++cpu) {
            for (uint64_t i = 0; i < 50; ++i)
                times.push_back(turn * kSecondNs / 2 + i * 10'000'000 + cpu * 5'000'000);
        }
    }
    RecordTotals totals;
    std::vector<uint64_t> expected = times;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(sorted(times, totals), expected);
    EXPECT_EQ(totals.unordered, 0u);
    EXPECT_EQ(totals.records, times.size());
}

TEST(RecordSorter, CountsWhatComesTooLate)
{
    RecordTotals totals;
    const std::vector<uint64_t> times = {kSecondNs, 10 * kSecondNs, 20 * kSecondNs, 2 * kSecondNs, 21 * kSecondNs};
    EXPECT_EQ(sorted(times, totals).size(), times.size()) << "nothing is lost";
    EXPECT_EQ(totals.unordered, 1u);
}

TEST(RecordSorter, StaysInBoundsHoweverManyComeAtOneTime)
{
    RecordTotals totals;
    uint64_t delivered = 0;
    const RecordSink sink = [&](const Record&) { return ++delivered != 0; };
    RecordSorter sorter(sink, totals);
    const std::vector<uint64_t> stack(2048, 1);
    Record record;
    record.stack = stack;
    const size_t count = 2 * RecordSorter::kMaxBytes / (stack.size() * sizeof stack[0]);
    for (size_t i = 0; i < count; ++i) {
        record.timeNs = i % 100;
        sorter.add(record);
    }
    EXPECT_GT(delivered, count / 4) << "not held back";
    sorter.finish();
    EXPECT_EQ(delivered, count);
}

/// A bundle with one instrument's messages.
std::string bundleOf(std::string_view identifier, const test::StreamText& stream)
{
    const std::string path = test::freshDirectory("records-" + std::string(identifier)) + "/run.vnt";
    VNT_CHECK(sys::makeDirectories(path, 0700).ok());
    test::writeText(path + "/" + std::string(identifier),
                    test::archiveOf(test::signaturesOf({}).get(), 42, stream.messages()));
    test::writeText(path + "/" + std::string(identifier) + std::string(kMessageStreamSuffix), stream.text());
    return path;
}

std::string textOf(const std::string& path, std::string_view identifier, RecordTotals& totals, size_t limit = SIZE_MAX)
{
    const Bundle bundle = Bundle::open(path).take();
    std::string text;
    totals = readRecords(bundle, bundle.instrument(identifier), [&](const Record& record) {
        text += std::to_string(static_cast<int>(record.kind)) + " " + std::to_string(record.timeNs) + " "
            + std::to_string(record.pid) + " " + std::string(record.name);
        for (const Record::Value& value : record.values)
            text += " " + std::string(value.name) + "=" + std::to_string(value.value);
        for (size_t i = 0; i < record.stack.size(); ++i)
            text += (record.role(i) == FrameRole::kReturn ? " <" : " @") + std::to_string(record.stack[i] & 0xffff);
        text += record.isStackWhole ? "\n" : " cut\n";
        return --limit != 0;
    });
    EXPECT_TRUE(bundle.remarks().texts().empty()) << bundle.remarks().texts().front();
    return text;
}

TEST(RecordReading, GivesStacksInTheOrderOfTime)
{
    stacks::StackRecordWriter writer(stacks::SessionRecord{1000, 3, 0});
    test::StreamText stream;
    writer.addThread(0, {42, 43, 0, "helper"});
    const uint32_t user = writer.addNode(writer.addCutNode(), 0, 0x1010);
    const uint32_t inner = writer.addNode(user, 0x1010, 0x1020);
    const uint32_t kernel = writer.addNode(inner, 0x1020, test::kKernelStart + 0x30);
    writer.addSample(200, 0, kernel);
    writer.addSample(100, 0, inner);
    stream.addFrom(writer);
    writer.addBlocked(150, 0, 0, 40);
    writer.addFork(120, 42, 77);
    writer.addLost(300, stacks::LostCause::kRingFull, 4);
    stream.addFrom(writer);
    const std::string path = bundleOf(kStackSamplerId, stream);
    RecordTotals totals;
    EXPECT_EQ(textOf(path, kStackSamplerId, totals),
              "1 100 42  @4128 <4112 cut\n"
              "13 120 42  child=77\n"
              "2 150 42 \n"
              "1 200 42  @48 @4128 <4112 cut\n"
              "16 300 0 ring full count=4\n");
    EXPECT_EQ(totals.records, 5u);
    EXPECT_TRUE(totals.isComplete);
    EXPECT_EQ(textOf(path, kStackSamplerId, totals, 2), "1 100 42  @4128 <4112 cut\n13 120 42  child=77\n");
    EXPECT_FALSE(totals.isComplete);
}

TEST(RecordReading, TellsOfAFreeWhatItFreed)
{
    heap::HeapRecordWriter writer(heap::SessionRecord{});
    test::StreamText stream;
    writer.addTarget(90, {42, 0, "program"});
    const uint32_t node = writer.addNode(0, 0, 0x5000);
    writer.addAllocate(100, heap::Function::kCalloc, 3, node, 64, 0xa000);
    writer.addFree(110, heap::Function::kMalloc, 3);
    writer.addFree(111, heap::Function::kMalloc, 3);
    writer.addFreeUnknown(120, heap::Function::kMalloc, 0xb000);
    stream.add(writer.message());
    RecordTotals totals;
    EXPECT_EQ(textOf(bundleOf(kHeapRecorderId, stream), kHeapRecorderId, totals),
              "6 90 42 program\n"
              "3 100 42 calloc address=40960 size=64 slot=3 <20480\n"
              "4 110 42  address=40960 size=64 slot=3\n"
              "4 111 42  address=0 size=0 slot=-1\n"
              "4 120 42  address=45056 size=0 slot=-1\n");
}

} // namespace
} // namespace vnt
