#include "collectors/stacks/StackWindow.h"

#include <gtest/gtest.h>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr uint64_t kSecondNs = 1'000'000'000;

class Reading : public RecordSink, public stacks::StackRecordHandler {
public:
    Status trySend(std::span<const std::byte>) override { return Status(Code::kTimedOut, "full"); }
    Status send(std::span<const std::byte> message) override
    {
        EXPECT_LT(message.size(), 64u << 10);
        const Status status = _reader.read(message, *this);
        EXPECT_TRUE(status.ok()) << status.message();
        return {};
    }
    void reportProblem(const std::string&) override { }
    void onSample(const stacks::SampleRecord& sample) override
    {
        if (samples++ == 0)
            firstNs = sample.timeNs;
        std::vector<uint64_t> frames;
        whole += _reader.frames(sample.stack, frames);
        names += sample.thread->name;
        for (const uint64_t address : frames)
            addresses += address;
    }
    void onOrphan(uint64_t) override { ADD_FAILURE() << "orphan"; }
    void onMissingMessages(uint64_t) override { ADD_FAILURE() << "gap"; }
    void onLost(uint64_t, stacks::LostCause cause, uint64_t, uint64_t total) override
    {
        lost[static_cast<size_t>(cause)] = total;
    }

    size_t samples = 0, whole = 0;
    uint64_t firstNs = 0, addresses = 0;
    std::string names;
    uint64_t lost[stacks::kLostCauses] = {};

private:
    stacks::StackRecordReader _reader;
};

/// Sends the writer's message into the window and begins a generation when it asks for one.
void pass(stacks::StackRecordWriter& writer, StackWindow& window, bool renew)
{
    ASSERT_TRUE(window.trySend(writer.message()).ok());
    writer.messageSent();
    if (renew)
        writer.beginGeneration();
}

TEST(StackWindow, SendsWhatLiesInsideAndOnlyThat)
{
    Reading sink;
    const stacks::SessionRecord session{1'000'000, 1, 10 * kSecondNs};
    StackWindow window(session, sink);
    stacks::StackRecordWriter writer(session);
    const uint64_t nowNs = sys::monotonicNs() + 100 * kSecondNs;
    writer.addThread(0, {1, 1, 0, "old"});
    writer.addSample(nowNs - 11 * kSecondNs, 0, writer.addNode(0, 0, 0x1000));
    const uint32_t stack = writer.addNode(0, 0, 0x10);
    writer.addSample(nowNs - 9 * kSecondNs, 0, stack);
    writer.addLost(nowNs, stacks::LostCause::kRingFull, 3);
    pass(writer, window, false);
    writer.addThread(0, {1, 1, 0, "new"});
    writer.addSample(nowNs - 8 * kSecondNs, 0, writer.addNode(stack, 0x10, 0x20));
    pass(writer, window, true);
    writer.addThread(0, {1, 2, 0, "other"});
    writer.addSample(nowNs - 7 * kSecondNs, 0, writer.addNode(writer.addCutNode(), 0, 0x40));
    pass(writer, window, true);
    ASSERT_TRUE(window.flush(nowNs).ok());
    EXPECT_EQ(sink.samples, 3u);
    EXPECT_EQ(sink.firstNs, nowNs - 9 * kSecondNs);
    EXPECT_EQ(sink.names, "oldnewother");
    EXPECT_EQ(sink.addresses, 0x10u + 0x30 + 0x40);
    EXPECT_EQ(sink.whole, 2u) << "a cut stack stays marked";
    EXPECT_EQ(sink.lost[0], 3u);
    EXPECT_EQ(window.heldBytes(), 0u);

    writer.addThread(0, {1, 1, 0, "again"});
    writer.addSample(nowNs - kSecondNs, 0, writer.addNode(0, 0, 0x1));
    pass(writer, window, true);
    ASSERT_TRUE(window.flush(nowNs).ok());
    EXPECT_EQ(sink.samples, 4u) << "nothing twice";
}

TEST(StackWindow, ForgetsGenerationsOlderThanTheWindow)
{
    Reading sink;
    const stacks::SessionRecord session{1'000'000, 1, 1};
    StackWindow window(session, sink);
    stacks::StackRecordWriter writer(session);
    size_t largest = 0;
    for (int i = 0; i < 1000; ++i) {
        writer.addThread(0, {1, 1, 0, "a"});
        writer.addSample(5, 0, 0);
        writer.addLost(5, stacks::LostCause::kRingFull, static_cast<uint64_t>(i) + 1);
        pass(writer, window, true);
        largest = std::max(largest, window.heldBytes());
    }
    EXPECT_LT(largest, 1000u);
    ASSERT_TRUE(window.flush(sys::monotonicNs()).ok());
    EXPECT_EQ(sink.samples, 0u);
    EXPECT_EQ(sink.lost[0], 1000u) << "losses are told although their time is over";
    EXPECT_EQ(sink.lost[static_cast<size_t>(stacks::LostCause::kWindowFull)], 0u) << "old is not lost";
}

TEST(StackWindow, ItsMemoryIsLimitedAndTheRestCounted)
{
    Reading sink;
    const stacks::SessionRecord session{1'000'000, 1, 1000 * kSecondNs};
    StackWindow window(session, sink);
    stacks::StackRecordWriter writer(session);
    const uint64_t nowNs = sys::monotonicNs();
    uint64_t written = 0;
    for (size_t bytes = 0; bytes < 2 * StackWindow::kMaxBytes;) {
        if (writer.sizeBytes() < 100)
            writer.addThread(0, {1, 1, 0, "a"});
        while (writer.sizeBytes() < 1u << 20) {
            writer.addSample(nowNs + written % 2 * 1'000'000, 0, 0);
            ++written;
        }
        bytes += writer.sizeBytes();
        pass(writer, window, false);
        if (window.wantsGeneration(nowNs))
            writer.beginGeneration();
        EXPECT_LE(window.heldBytes(), StackWindow::kMaxBytes + (2u << 20));
    }
    ASSERT_TRUE(window.flush(nowNs + kSecondNs).ok());
    EXPECT_GT(sink.samples, written / 4);
    EXPECT_EQ(sink.samples + sink.lost[static_cast<size_t>(stacks::LostCause::kWindowFull)], written);
}

} // namespace
} // namespace vnt
