#include <gtest/gtest.h>

#include <functional>

#include "platform/base/ByteWriter.h"
#include "records/TraceRecordReader.h"
#include "records/TraceRecordWriter.h"

namespace vnt::trace {
namespace {

/// Everything a recording told, as text.
class Telling : public TraceRecordHandler {
public:
    void onGeneration(const std::shared_ptr<const Definitions>& definitions) override
    {
        _definitions = definitions;
        text += "generation\n";
    }
    void onEvent(const EventRecord& event) override
    {
        const TypeRecord& type = _definitions->type(event.type);
        text += std::to_string(event.timeNs) + " cpu" + std::to_string(event.cpu) + " "
            + _definitions->thread(event.thread).name + " " + type.name;
        for (size_t i = 0; i < event.values.size(); ++i)
            text += " " + type.values[i] + "=" + std::to_string(static_cast<int64_t>(event.values[i]));
        if (!event.text.empty())
            text += " \"" + std::string(event.text) + "\"";
        std::vector<uint64_t> frames;
        if (!_definitions->frames(event.stack, frames))
            text += " cut";
        for (const uint64_t frame : frames)
            text += " @" + std::to_string(frame);
        text += "\n";
        ++events;
    }
    void onOrphan(uint64_t timeNs) override { text += "orphan " + std::to_string(timeNs) + "\n"; }
    void onSettled(uint64_t timeNs) override { text += "settled " + std::to_string(timeNs) + "\n"; }
    void onLost(uint64_t, LostCause cause, uint64_t newly, uint64_t total) override
    {
        text += "lost " + std::to_string(static_cast<int>(cause)) + " " + std::to_string(newly) + "/"
            + std::to_string(total) + "\n";
    }
    void onFork(uint64_t, uint32_t parent, uint32_t child) override
    {
        text += "fork " + std::to_string(parent) + ">" + std::to_string(child) + "\n";
    }
    void onMissingMessages(uint64_t count) override { text += "missing " + std::to_string(count) + "\n"; }

    std::string text;
    size_t events = 0;

private:
    std::shared_ptr<const Definitions> _definitions;
};

SessionRecord withStacks()
{
    SessionRecord session;
    session.flags = SessionRecord::kUserStacks;
    return session;
}

TypeRecord switchType() { return {EventKind::kSwitch, 0, "sched:sched_switch", "", 0, {"prev_state", "next_pid"}}; }

const TypeRecord kExecType{EventKind::kExec, 0, "sched:sched_process_exec", "", TypeRecord::kText, {}};

void add(TraceRecordWriter& writer, uint64_t timeNs, uint32_t cpu, uint32_t type, uint32_t stack,
         std::vector<uint64_t> values, std::string_view text = {})
{
    writer.addEvent({timeNs, cpu, type, 0, stack, values, text});
}

std::vector<std::byte> sent(TraceRecordWriter& writer)
{
    const auto view = writer.message();
    std::vector<std::byte> copy(view.begin(), view.end());
    writer.messageSent();
    return copy;
}

/// A message with one of each.
std::vector<std::byte> sample(TraceRecordWriter& writer)
{
    writer.addThread(0, {7, 8, 0, "main"});
    const uint32_t outer = writer.addNode(0, 0, 1000);
    const uint32_t inner = writer.addNode(outer, 1000, UINT64_MAX);
    const uint32_t cut = writer.addNode(writer.addCutNode(), 0, 50);
    const uint32_t switches = writer.addType(switchType());
    const uint32_t execs = writer.addType(kExecType);
    add(writer, 5000, 1, switches, inner, {1, 44});
    add(writer, 4000, 0, switches, 0, {static_cast<uint64_t>(-3), UINT64_MAX});
    add(writer, 6000, 0, execs, cut, {}, "/bin/true");
    writer.addFork(6100, 7, 9);
    writer.addLost(6200, LostCause::kRingFull, 12);
    writer.addSettled(6150);
    return sent(writer);
}

const char kSampleText[] = "generation\n"
                           "5000 cpu1 main sched:sched_switch prev_state=1 next_pid=44 @18446744073709551615 @1000\n"
                           "4000 cpu0 main sched:sched_switch prev_state=-3 next_pid=-1\n"
                           "6000 cpu0 main sched:sched_process_exec \"/bin/true\" cut @50\n"
                           "fork 7>9\n"
                           "lost 0 12/12\n"
                           "settled 6150\n";

TEST(TraceRecords, WhatIsWrittenIsRead)
{
    TraceRecordWriter writer(withStacks());
    const auto first = sample(writer);
    EXPECT_EQ(eventsIn(first), 3u);
    // Differences begin anew with each message; numbers go on.
    add(writer, 7000, 0, 0, 2, {1, 45});
    writer.addLost(7100, LostCause::kRingFull, 12);
    writer.addLost(7100, LostCause::kRingFull, 20);
    const auto second = sent(writer);
    TraceRecordReader reader;
    Telling telling;
    ASSERT_TRUE(reader.read(first, telling).ok());
    EXPECT_EQ(telling.text, kSampleText);
    telling.text.clear();
    ASSERT_TRUE(reader.read(second, telling).ok());
    EXPECT_EQ(telling.text,
              "7000 cpu0 main sched:sched_switch prev_state=1 next_pid=45 @18446744073709551615 @1000\nlost 0 8/20\n");
    EXPECT_EQ(writer.totalEvents(), 4u);
}

TEST(TraceRecords, ADroppedMessageCostsNothingButItsEvents)
{
    TraceRecordWriter writer(withStacks());
    TraceRecordReader reader;
    Telling telling;
    ASSERT_TRUE(reader.read(sample(writer), telling).ok());
    add(writer, 6500, 0, 0, 1, {0, 1});
    EXPECT_EQ(writer.pendingEvents(), 1u);
    writer.messageDropped();
    EXPECT_EQ(writer.typeCount(), 0u) << "all numbers are void";
    telling.text.clear();
    ASSERT_TRUE(reader.read(sample(writer), telling).ok());
    std::string expected = kSampleText;
    expected.erase(expected.find("lost"), expected.find("settled") - expected.find("lost")); // told before
    EXPECT_EQ(telling.text, expected);
}

TEST(TraceRecords, EventsBeforeAWindowAreLeftOutAndTheirDefinitionsAreNot)
{
    TraceRecordWriter writer(withStacks());
    auto message = sample(writer);
    redateMessage(message, 3, 5500);
    TraceRecordReader reader;
    Telling telling;
    ASSERT_TRUE(reader.read(message, telling).ok());
    EXPECT_EQ(telling.events, 1u);
    EXPECT_TRUE(telling.text.starts_with("missing 3\ngeneration\n6000 cpu0 main")) << telling.text;
}

TEST(TraceRecords, WhatLostItsDefinitionIsAnOrphanOrEndsTheMessage)
{
    TraceRecordWriter writer(withStacks());
    (void)sample(writer);
    add(writer, 7000, 0, 0, 2, {1, 45});
    TraceRecordReader reader;
    Telling telling;
    // The first message is missing: the length of an event of unknown type is not known either.
    EXPECT_EQ(reader.read(sent(writer), telling).code(), Code::kCorrupt);
    const uint32_t type = writer.addType(switchType());
    add(writer, 8000, 0, type, 0, {1, 2});
    ASSERT_TRUE(reader.read(sent(writer), telling).ok());
    EXPECT_EQ(telling.text, "missing 1\ngeneration\norphan 8000\n");
}

TEST(TraceRecords, ABrokenMessageIsRefusedAtEveryByte)
{
    TraceRecordWriter writer(withStacks());
    const auto whole = sample(writer);
    size_t refused = 0;
    for (size_t length = 0; length < whole.size(); ++length) {
        TraceRecordReader reader;
        Telling telling;
        refused += !reader.read(std::span(whole).first(length), telling).ok();
    }
    // Between two records a message may end: nine of them begin behind the header and the session.
    EXPECT_GE(refused, whole.size() - 20);
    for (size_t at = 0; at < whole.size(); ++at) {
        for (const auto value : std::initializer_list<uint8_t>{0x00, 0x01, 0x7f, 0x80, 0xff}) {
            auto changed = whole;
            changed[at] = static_cast<std::byte>(value);
            TraceRecordReader reader;
            Telling telling;
            (void)reader.read(changed, telling); // whatever it says, it ends and stays within bounds
            EXPECT_LE(telling.events, 40u);
        }
    }
}

TEST(TraceRecords, HostileMessagesAreRefused)
{
    struct Row {
        const char* what;
        std::function<void(ByteWriter&)> write;
        Code code;
    };
    const auto text = [](ByteWriter& bytes, size_t size) { bytes.text(std::string(size, 'x')); };
    const Row rows[] = {
        {"an unknown record", [](ByteWriter& b) { b.varint(11); }, Code::kCorrupt},
        {"a kind beyond every type", [](ByteWriter& b) { b.varint(UINT64_MAX); }, Code::kCorrupt},
        {"an event of no type", [](ByteWriter& b) { b.varint(kFirstEvent); }, Code::kCorrupt},
        {"a processor beyond every machine",
         [](ByteWriter& b) {
             b.varint(static_cast<uint8_t>(RecordKind::kProcessor));
             b.varint(kMaxProcessors);
         },
         Code::kTooLarge},
        {"a type of nine values",
         [&](ByteWriter& b) {
             b.varint(static_cast<uint8_t>(RecordKind::kType));
             b.varint(0);
             b.varint(0);
             text(b, 1);
             text(b, 0);
             b.varint(0);
             b.varint(kMaxValues + 1);
         },
         Code::kTooLarge},
        {"a name past its limit",
         [&](ByteWriter& b) {
             b.varint(static_cast<uint8_t>(RecordKind::kType));
             b.varint(0);
             b.varint(0);
             text(b, kMaxNameBytes + 1);
         },
         Code::kCorrupt},
        {"a frame before its caller",
         [](ByteWriter& b) {
             b.varint(static_cast<uint8_t>(RecordKind::kNode));
             b.varint(1);
             b.varint(0);
         },
         Code::kCorrupt},
        {"a thread number beyond the table",
         [&](ByteWriter& b) {
             b.varint(static_cast<uint8_t>(RecordKind::kThread));
             b.varint(stacks::kMaxThreads);
             b.varint(1);
             b.varint(1);
             b.varint(0);
             text(b, 1);
         },
         Code::kTooLarge},
        {"an unknown cause of loss",
         [](ByteWriter& b) {
             b.varint(static_cast<uint8_t>(RecordKind::kLost));
             b.varint(0);
             b.varint(kLostCauses);
             b.varint(1);
         },
         Code::kCorrupt},
    };
    for (const Row& row : rows) {
        TraceRecordWriter writer(withStacks());
        const auto header = writer.message();
        ByteWriter bytes;
        bytes.raw(header.data(), kHeaderBytes);
        row.write(bytes);
        TraceRecordReader reader;
        Telling telling;
        EXPECT_EQ(reader.read(bytes.view(), telling).code(), row.code) << row.what;
    }
    // Numbers of definitions that a header claims are limited before anything is made of them.
    TraceRecordWriter writer(withStacks());
    const auto header = writer.message();
    for (const size_t at : {16u, 20u}) {
        std::vector<std::byte> changed(header.begin(), header.end());
        std::fill_n(changed.begin() + static_cast<std::ptrdiff_t>(at), 4, std::byte{0xff});
        TraceRecordReader reader;
        Telling telling;
        EXPECT_EQ(reader.read(changed, telling).code(), Code::kTooLarge) << at;
    }
}

TEST(TraceRecords, EventsAreSmall)
{
    // Six arguments that are addresses, every one of them new: the worst that a system call can bring.
    for (const bool hasStacks : {false, true}) {
        TraceRecordWriter writer(hasStacks ? withStacks() : SessionRecord());
        writer.addThread(0, {7, 8, 0, "main"});
        const uint32_t type = writer.addType(
            {EventKind::kCallEnter, 9, "raw_syscalls:sys_enter", "mmap", 0, {"a", "b", "c", "d", "e", "f"}});
        const size_t before = writer.sizeBytes();
        constexpr size_t kEvents = 1000;
        for (uint64_t i = 0; i < kEvents; ++i)
            add(writer, 1'000'000 * i, 0, type, hasStacks ? 1'000'000 : 0,
                {0x7f0000000000 + i * 4096, 4096, 3, 0x22, UINT64_MAX, i * 0x10000});
        EXPECT_LE((writer.sizeBytes() - before) / kEvents, hasStacks ? 40u : 32u);
    }
}

} // namespace
} // namespace vnt::trace
