#include "collectors/kernel/TraceWindow.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "collectors/kernel/BpfRing.h"
#include "collectors/kernel/KernelTracer_testing.h"
#include "collectors/kernel/TargetTasks.h"
#include "platform/base/sys.h"
#include "records/TraceRecordWriter.h"

namespace vnt {
namespace {

void fill(trace::TraceRecordWriter& writer, uint64_t timeNs, size_t events)
{
    if (writer.typeCount() == 0) {
        writer.addThread(0, {1, 1, 0, "t"});
        writer.addType({trace::EventKind::kOther, 0, "a:b", "", 0, {}});
    }
    for (size_t i = 0; i < events; ++i)
        writer.addEvent({timeNs + i, 0, 0, 0, 0, {}, {}});
}

TEST(TraceWindow, SendsWhatLiesInItAndNothingOlder)
{
    TraceRecording recording;
    constexpr uint64_t kWindowNs = 1'000'000'000'000;
    TraceWindow window(kWindowNs, recording);
    trace::TraceRecordWriter writer{trace::SessionRecord()};
    const uint64_t nowNs = sys::monotonicNs() + kWindowNs;
    fill(writer, nowNs - kWindowNs - 10, 20);
    ASSERT_TRUE(window.trySend(writer.message()).ok());
    writer.messageSent();
    fill(writer, nowNs - 100, 5);
    ASSERT_TRUE(window.trySend(writer.message()).ok());
    writer.messageSent();
    EXPECT_EQ(recording.events, 0u);
    ASSERT_TRUE(window.flush(nowNs).ok());
    EXPECT_EQ(recording.events, 15u);
    EXPECT_EQ(window.heldBytes(), 0u);
    // The next window's messages follow in the sequence.
    writer.beginGeneration();
    fill(writer, nowNs, 3);
    ASSERT_TRUE(window.trySend(writer.message()).ok());
    ASSERT_TRUE(window.flush(nowNs + 10).ok());
    EXPECT_EQ(recording.events, 18u);
    EXPECT_EQ(recording.missing, 0u);
}

TEST(TraceWindow, MemoryIsBoundedAndWhatItPushesOutIsCounted)
{
    TraceRecording recording;
    constexpr size_t kLimit = 200'000;
    TraceWindow window(1'000'000'000'000, recording, kLimit);
    trace::TraceRecordWriter writer{trace::SessionRecord()};
    uint64_t timeNs = sys::monotonicNs();
    size_t written = 0;
    size_t generations = 0;
    for (int i = 0; i < 200; ++i) {
        fill(writer, timeNs += 1'000'000, 1000);
        written += 1000;
        ASSERT_TRUE(window.trySend(writer.message()).ok());
        writer.messageSent();
        EXPECT_LE(window.heldBytes(), kLimit + 2 * kLimit / 4);
        if (window.wantsGeneration(sys::monotonicNs())) {
            writer.beginGeneration();
            ++generations;
        }
    }
    EXPECT_GT(generations, 4u);
    const uint64_t pushedOut = window.takePushedOut();
    EXPECT_GT(pushedOut, 0u);
    EXPECT_EQ(window.takePushedOut(), 0u);
    ASSERT_TRUE(window.flush(timeNs + 1'000'000).ok());
    EXPECT_EQ(recording.events + pushedOut, written);
    EXPECT_EQ(recording.missing, 0u) << "messages count anew";
}

TEST(TargetTasks, ChildrenOfWantedTasksAreWantedUntilTwoReadingsAfterTheirEnd)
{
    TargetTasks tasks;
    EXPECT_TRUE(tasks.contains(77)) << "everything, until one is named";
    tasks.add(10);
    tasks.onFork(10, 11, 10);
    tasks.onFork(500, 500, 11);
    tasks.onFork(600, 600, 599);
    for (const uint32_t tid : {10u, 11u, 500u})
        EXPECT_TRUE(tasks.contains(tid)) << tid;
    for (const uint32_t tid : {600u, 599u, 0u, UINT32_MAX})
        EXPECT_FALSE(tasks.contains(tid)) << tid;
    EXPECT_EQ(tasks.processOf(11), 10u);
    EXPECT_EQ(tasks.processOf(12345), 12345u);
    tasks.onExit(11);
    tasks.forgetEnded();
    EXPECT_TRUE(tasks.contains(11)) << "its last events may stand in a ring that was read before";
    tasks.forgetEnded();
    EXPECT_FALSE(tasks.contains(11));
    EXPECT_TRUE(tasks.contains(500));
}

/// A ring buffer in memory of our own, as a program that lies would write it.
class FakeRing {
public:
    static constexpr size_t kBytes = 4096;
    FakeRing()
    {
        _page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
        auto reader = Mapping::create(_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0).take();
        auto writer =
            Mapping::create(_page + 2 * kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0).take();
        _head = static_cast<uint64_t*>(writer.address());
        _data = static_cast<std::byte*>(writer.address()) + _page;
        ring = std::make_unique<BpfRing>(BpfRing::over(std::move(reader), std::move(writer), kBytes).take());
    }
    void put(uint64_t at, uint32_t word) { std::memcpy(_data + at % kBytes, &word, sizeof word); }
    void setHead(uint64_t head) { *_head = head; }
    /// Lengths of the records read; -1: the ring is dead.
    std::vector<long> read()
    {
        std::vector<long> lengths;
        const Status status =
            ring->drain([&](std::span<const std::byte> bytes) { lengths.push_back(static_cast<long>(bytes.size())); });
        if (!status.ok())
            lengths.push_back(-1);
        return lengths;
    }
    std::unique_ptr<BpfRing> ring;

private:
    size_t _page = 0;
    uint64_t* _head = nullptr;
    std::byte* _data = nullptr;
};

TEST(BpfRing, ReadsCompleteRecordsAndStopsAtOneBeingWritten)
{
    FakeRing fake;
    fake.put(0, 24);
    fake.put(32, 5 | BPF_RINGBUF_DISCARD_BIT);
    fake.put(48, 3);
    fake.put(64, 8 | BPF_RINGBUF_BUSY_BIT);
    fake.setHead(80);
    EXPECT_EQ(fake.read(), (std::vector<long>{24, 3}));
    EXPECT_EQ(fake.read(), std::vector<long>{});
    fake.put(64, 8);
    EXPECT_EQ(fake.read(), (std::vector<long>{8}));
    // Across the end, where the data stands a second time.
    fake.put(80, FakeRing::kBytes - 80 - 8 - 16);
    fake.put(FakeRing::kBytes - 16, 40);
    fake.setHead(FakeRing::kBytes - 16 + 48);
    EXPECT_EQ(fake.read(), (std::vector<long>{static_cast<long>(FakeRing::kBytes - 104), 40}));
}

TEST(BpfRing, ContradictionsKillIt)
{
    struct Row {
        const char* what;
        uint32_t word;
        uint64_t head;
    };
    const Row rows[] = {{"a record longer than what was written", 100, 64},
                        {"a record longer than the ring", 0x3fffffff, 64},
                        {"more written than fits", 8, FakeRing::kBytes + 8},
                        {"less written than read", 8, UINT64_MAX - 7}};
    for (const Row& row : rows) {
        FakeRing fake;
        fake.put(0, row.word);
        fake.setHead(row.head);
        EXPECT_EQ(fake.read(), std::vector<long>{-1}) << row.what;
        fake.setHead(0);
        EXPECT_EQ(fake.read(), std::vector<long>{-1}) << "dead for good: " << row.what;
    }
}

} // namespace
} // namespace vnt
