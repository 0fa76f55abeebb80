#include <gtest/gtest.h>

#include <sstream>

#include "records/StackRecordReader.h"
#include "records/StackRecordWriter.h"

namespace vnt::stacks {
namespace {

using Message = std::vector<std::byte>;

/// One line of text for each thing told.
class Transcript : public StackRecordHandler {
public:
    explicit Transcript(const StackRecordReader& reader) : _reader(reader) { }

    void onGeneration(uint32_t generation) override { _text << "generation " << generation << "\n"; }
    void onSession(const SessionRecord& session) override
    {
        _text << "session " << session.intervalNs << " " << session.flags << " " << session.windowNs << "\n";
    }
    void onThread(uint32_t number, const ThreadRecord& thread) override
    {
        _text << "thread " << number << "=" << thread.pid << "/" << thread.tid << " " << thread.flags << " "
              << thread.name << "\n";
    }
    void onSample(const SampleRecord& sample) override
    {
        _text << "sample " << sample.timeNs << " " << sample.thread->name;
        if (sample.blockedNs)
            _text << " blocked " << sample.blockedNs;
        std::vector<uint64_t> addresses;
        const bool whole = _reader.frames(sample.stack, addresses);
        for (const uint64_t address : addresses)
            _text << " " << std::hex << address << std::dec;
        _text << (whole ? "\n" : " ...\n");
        ++samples;
    }
    void onOrphan(uint64_t timeNs) override { _text << "orphan " << timeNs << "\n"; }
    void onLost(uint64_t timeNs, LostCause cause, uint64_t newly, uint64_t total) override
    {
        _text << "lost " << timeNs << " " << int(cause) << " " << newly << " of " << total << "\n";
    }
    void onExec(uint64_t timeNs, uint32_t pid, std::string_view name) override
    {
        _text << "exec " << timeNs << " " << pid << " " << name << "\n";
    }
    void onFork(uint64_t timeNs, uint32_t parent, uint32_t child) override
    {
        _text << "fork " << timeNs << " " << parent << " " << child << "\n";
    }
    void onExit(uint64_t timeNs, uint32_t pid) override { _text << "exit " << timeNs << " " << pid << "\n"; }
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t written) override
    {
        _text << "cost " << timeNs << " " << cpuNs << " " << written << "\n";
    }
    void onMissingMessages(uint64_t count) override { _text << "missing " << count << "\n"; }

    std::string take() { return std::exchange(_text, std::ostringstream()).str(); }
    size_t samples = 0;

private:
    const StackRecordReader& _reader;
    std::ostringstream _text;
};

Message sent(StackRecordWriter& writer)
{
    const auto view = writer.message();
    Message copy(view.begin(), view.end());
    writer.messageSent();
    return copy;
}

constexpr SessionRecord kSession{1'000'000, SessionRecord::kUserStacks | SessionRecord::kKernelStacks, 0};

/// Three messages: two of generation 1, one of generation 2; every kind of record occurs.
std::vector<Message> recording()
{
    std::vector<Message> messages;
    StackRecordWriter writer(kSession);
    writer.addThread(0, {10, 11, ThreadRecord::k32Bit, "main"});
    const uint32_t outer = writer.addNode(0, 0, 0x401000);
    const uint32_t inner = writer.addNode(outer, 0x401000, 0x400fff);
    const uint32_t kernel = writer.addNode(inner, 0x400fff, 0xffffffff81000010);
    writer.addSample(5000, 0, kernel);
    writer.addSample(4000, 0, 0);
    messages.push_back(sent(writer));
    const uint32_t cut = writer.addCutNode();
    const uint32_t below = writer.addNode(cut, 0, 0x7fff00000000);
    writer.addSample(6000, 0, below);
    writer.addBlocked(9000, 0, inner, 2500);
    writer.addLost(9001, LostCause::kRingFull, 7);
    writer.addExec(9002, 10, "other");
    writer.addFork(9003, 10, 12);
    writer.addThread(0, {10, 11, 0, "other"});
    writer.addSample(9004, 0, outer);
    messages.push_back(sent(writer));
    writer.addSample(9500, 0, outer);
    writer.messageDropped();
    writer.addThread(0, {10, 11, 0, "again"});
    writer.addSample(9600, 0, writer.addNode(0, 0, 1));
    writer.addLost(9601, LostCause::kRingFull, 7);
    writer.addLost(9602, LostCause::kBatchDropped, 1);
    writer.addExit(9603, 12);
    writer.addCost(9604, 1234);
    messages.push_back(sent(writer));
    return messages;
}

TEST(StackRecords, ReadsBackWhatWasWritten)
{
    StackRecordReader reader;
    Transcript transcript(reader);
    for (const Message& message : recording()) {
        const Status status = reader.read(message, transcript);
        EXPECT_TRUE(status.ok()) << status.message();
    }
    EXPECT_EQ(transcript.take(),
              "generation 1\nsession 1000000 3 0\nthread 0=10/11 1 main\n"
              "sample 5000 main ffffffff81000010 400fff 401000\nsample 4000 main\n"
              "sample 6000 main 7fff00000000 ...\nsample 9000 main blocked 2500 400fff 401000\n"
              "lost 9001 0 7 of 7\nexec 9002 10 other\nfork 9003 10 12\nthread 0=10/11 0 other\n"
              "sample 9004 other 401000\n"
              "generation 2\nsession 1000000 3 0\nthread 0=10/11 0 again\nsample 9600 again 1\n"
              "lost 9602 1 1 of 1\nexit 9603 12\ncost 9604 1234 6\n");
}

TEST(StackRecords, ReportsWhatAMissingMessageOrphans)
{
    StackRecordWriter writer(kSession);
    std::vector<Message> messages;
    writer.addThread(0, {1, 1, 0, "a"});
    const uint32_t first = writer.addNode(0, 0, 0x1000);
    messages.push_back(sent(writer));
    const uint32_t lost = writer.addNode(first, 0x1000, 0x2000);
    writer.addThread(1, {1, 2, 0, "b"});
    messages.push_back(sent(writer));
    const uint32_t underLost = writer.addNode(lost, 0x2000, 0x3000);
    const uint32_t sound = writer.addNode(first, 0x1000, 0x4000);
    writer.addSample(10, 0, lost);
    writer.addSample(20, 0, underLost);
    writer.addSample(30, 1, first);
    writer.addSample(40, 0, sound);
    messages.push_back(sent(writer));

    StackRecordReader reader;
    Transcript transcript(reader);
    ASSERT_TRUE(reader.read(messages[0], transcript).ok());
    transcript.take();
    ASSERT_TRUE(reader.read(messages[2], transcript).ok());
    EXPECT_EQ(transcript.take(), "missing 1\norphan 10\norphan 20\norphan 30\nsample 40 a 4000 1000\n");
    EXPECT_EQ(reader.read(messages[1], transcript).code(), Code::kCorrupt) << "an old message after a newer one";
}

/// A message of generation 1 whose records are `records`.
Message raw(const std::vector<uint8_t>& records, uint32_t nodesBefore = 0, uint16_t version = kVersion)
{
    ByteWriter writer;
    writer.little(kMagic);
    writer.little(version);
    writer.little(uint16_t{0});
    writer.little(uint32_t{1});
    writer.little(uint32_t{0});
    writer.little(nodesBefore);
    writer.little(uint32_t{0});
    writer.little(uint64_t{0});
    writer.raw(records.data(), records.size());
    return writer.take();
}

TEST(StackRecords, RefusesHostileMessages)
{
    struct Row {
        const char* what;
        Message message;
        Code code;
    } rows[] = {
        {"nothing", {}, Code::kCorrupt},
        {"only a header", raw({}), Code::kOk},
        {"a later version", raw({}, 0, kVersion + 1), Code::kUnsupported},
        {"nodes before past the limit", raw({}, kMaxNodes + 1), Code::kTooLarge},
        {"one node more than the limit", raw({4}, kMaxNodes), Code::kTooLarge},
        {"record kind 0", raw({0}), Code::kCorrupt},
        {"record kind unknown", raw({200}), Code::kCorrupt},
        {"caller not yet defined", raw({3, 1, 0}), Code::kCorrupt},
        {"caller near 2^32", raw({3, 0xff, 0xff, 0xff, 0xff, 0x0f, 0}), Code::kCorrupt},
        {"caller past 2^32", raw({3, 0x80, 0x80, 0x80, 0x80, 0x10, 0}), Code::kCorrupt},
        {"thread at the limit", raw({5, 0x80, 0x80, 0x08, 1, 1, 0, 0}), Code::kTooLarge},
        {"name longer than the limit", raw({5, 0, 1, 1, 0, 65}), Code::kCorrupt},
        {"name past the end", raw({5, 0, 1, 1, 0, 5, 'a'}), Code::kCorrupt},
        {"cause of loss unknown", raw({7, 0, 6, 1}), Code::kCorrupt},
        {"message larger than the limit", Message(kMaxMessageBytes + 1), Code::kTooLarge},
    };
    for (const Row& row : rows) {
        StackRecordReader reader;
        Transcript transcript(reader);
        EXPECT_EQ(reader.read(row.message, transcript).code(), row.code) << row.what;
    }
}

TEST(StackRecords, RefusesStacksDeeperThanTheLimit)
{
    StackRecordWriter writer(kSession);
    uint32_t node = 0;
    for (uint32_t depth = 0; depth < kMaxDepth; ++depth)
        node = writer.addNode(node, 0, 1);
    StackRecordReader reader;
    Transcript transcript(reader);
    EXPECT_TRUE(reader.read(sent(writer), transcript).ok());
    writer.addNode(node, 0, 1);
    EXPECT_EQ(reader.read(sent(writer), transcript).code(), Code::kTooLarge);
}

TEST(StackRecords, SurvivesEveryTruncationAndEveryChangedByte)
{
    const std::vector<Message> messages = recording();
    for (size_t which = 0; which < messages.size(); ++which) {
        const Message& message = messages[which];
        for (size_t at = 0; at < message.size(); ++at) {
            for (const int change : {-1, 0x00, 0x01, 0x7f, 0x80, 0xff}) {
                Message damaged = message;
                if (change < 0)
                    damaged.resize(at);
                else
                    damaged[at] = static_cast<std::byte>(change);
                StackRecordReader reader;
                Transcript transcript(reader);
                for (size_t i = 0; i < messages.size(); ++i)
                    (void)reader.read(i == which ? damaged : messages[i], transcript); // any outcome but a crash
                if (change < 0 && at < kHeaderBytes) {
                    StackRecordReader fresh;
                    EXPECT_EQ(fresh.read(damaged, transcript).code(), Code::kCorrupt) << which << " cut at " << at;
                }
            }
        }
    }
}

TEST(StackRecords, SteadyStateTakesFewBytes)
{
    StackRecordWriter writer(kSession);
    writer.addThread(0, {1, 1, 0, "a"});
    for (uint32_t i = 0; i < 1000; ++i)
        writer.addNode(0, 0, 0x55d0c0de0000 + i);
    (void)sent(writer);
    for (uint64_t i = 0; i < 10'000; ++i)
        writer.addSample(1'000'000'000 + i * 1'000'017, 0, static_cast<uint32_t>(1 + i % 1000));
    const size_t bytes = sent(writer).size();
    EXPECT_LE(bytes, 10'000u * 8 + kHeaderBytes) << "1 kind, 3 time, 1 thread, 2 stack";
}

} // namespace
} // namespace vnt::stacks
