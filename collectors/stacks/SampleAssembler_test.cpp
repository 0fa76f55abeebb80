#include "collectors/stacks/SampleAssembler.h"

#include <gtest/gtest.h>

#include <map>

#include "records/StackRecordReader.h"

namespace vnt {
namespace {

/// A sink that has room or not, and reads what it is given.
class Reading : public RecordSink, public stacks::StackRecordHandler, public ProcessObserver {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        if (gone)
            return Status(Code::kPeerGone, "gone");
        if (full)
            return Status(Code::kTimedOut, "full");
        return send(message);
    }
    Status send(std::span<const std::byte> message) override
    {
        ++messages;
        const Status status = reader.read(message, *this);
        EXPECT_TRUE(status.ok()) << status.message();
        return {};
    }
    void reportProblem(const std::string&) override { }

    void onSample(const stacks::SampleRecord& sample) override
    {
        std::vector<uint64_t> frames;
        reader.frames(sample.stack, frames);
        text += std::to_string(sample.thread->pid) + "/" + std::to_string(sample.thread->tid) + "@"
            + std::to_string(sample.timeNs) + ":" + std::to_string(frames.size())
            + (sample.blockedNs ? "b" + std::to_string(sample.blockedNs) : "") + " ";
    }
    void onOrphan(uint64_t) override { text += "orphan "; }
    void onMissingMessages(uint64_t) override { text += "missing "; }
    void onLost(uint64_t, stacks::LostCause cause, uint64_t, uint64_t total) override { lost[cause] = total; }
    void onExec(uint64_t, uint32_t pid, std::string_view name) override
    {
        text += "exec" + std::to_string(pid) + std::string(name) + " ";
    }
    void onFork(uint64_t, uint32_t parent, uint32_t child) override
    {
        text += "fork" + std::to_string(parent) + ">" + std::to_string(child) + " ";
    }
    void onExit(uint64_t, uint32_t pid) override { text += "exit" + std::to_string(pid) + " "; }

    void onMapping(const MappingEvent& event) override { mapped += event.path + "=" + event.buildId + " "; }
    void onExec(uint64_t, pid_t, const std::string&) override { mapped += "exec "; }
    void onFork(uint64_t, pid_t, pid_t) override { mapped += "fork "; }
    void onExit(uint64_t, pid_t) override { mapped += "exit "; }
    void onKernelAddresses(std::span<const uint64_t> addresses) override { kernel += addresses.size(); }

    stacks::StackRecordReader reader;
    std::string text;
    std::string mapped;
    std::map<stacks::LostCause, uint64_t> lost;
    size_t messages = 0;
    size_t kernel = 0;
    bool full = false;
    bool gone = false;
};

/// Writes records as the kernel lays them out for kSampleType.
class Kernel {
public:
    explicit Kernel(SampleAssembler& assembler) : _assembler(assembler) { }

    /// `behind`: registers and dump, with kDumpType.
    void sample(uint32_t pid, uint32_t tid, uint64_t timeNs, const std::vector<uint64_t>& chain,
                const std::vector<uint64_t>& behind = {}, uint64_t event = 1)
    {
        ByteWriter w;
        w.little(event);
        w.little(pid);
        w.little(tid);
        w.little(timeNs);
        w.little(uint64_t{chain.size()});
        w.raw(chain.data(), chain.size() * 8);
        w.raw(behind.data(), behind.size() * 8);
        pass(PERF_RECORD_SAMPLE, 0, w);
    }
    void task(uint32_t type, uint32_t pid, uint32_t parent, uint32_t tid, uint32_t parentTid)
    {
        ByteWriter w;
        for (const uint32_t value : {pid, parent, tid, parentTid})
            w.little(value);
        w.little(uint64_t{50});
        trailer(w, pid, tid);
        pass(type, 0, w);
    }
    void switching(uint32_t pid, uint32_t tid, uint64_t timeNs, uint16_t misc)
    {
        ByteWriter w;
        trailer(w, pid, tid, timeNs);
        pass(PERF_RECORD_SWITCH, misc, w);
    }
    void name(uint32_t pid, uint32_t tid, const char* text, uint16_t misc)
    {
        ByteWriter w;
        w.little(pid);
        w.little(tid);
        char padded[16] = {};
        std::strncpy(padded, text, 15);
        w.raw(padded, sizeof padded);
        trailer(w, pid, tid);
        pass(PERF_RECORD_COMM, misc, w);
    }
    void mapping(uint32_t pid, const char* path)
    {
        ByteWriter w;
        w.little(pid);
        w.little(pid);
        for (const uint64_t value : {0x1000, 0x2000, 0x3000})
            w.little(value);
        w.little(uint8_t{4});
        w.raw("\0\0\0", 3);
        w.raw("\xab\xcd\x01\xff................", 20);
        w.little(uint64_t{5});
        char padded[24] = {};
        std::strncpy(padded, path, 23);
        w.raw(padded, sizeof padded);
        trailer(w, pid, pid);
        pass(PERF_RECORD_MMAP2, PERF_RECORD_MISC_MMAP_BUILD_ID, w);
    }
    void numbers(uint32_t type, const std::vector<uint64_t>& values)
    {
        ByteWriter w;
        w.raw(values.data(), values.size() * 8);
        trailer(w, 0, 0);
        pass(type, 0, w);
    }
    void pass(uint32_t type, uint16_t misc, const ByteWriter& w)
    {
        _assembler.onRecord({type, misc, static_cast<uint16_t>(w.size() + 8)}, w.view());
    }

private:
    static void trailer(ByteWriter& w, uint32_t pid, uint32_t tid, uint64_t timeNs = 60)
    {
        w.little(pid);
        w.little(tid);
        w.little(timeNs);
        w.little(uint64_t{1});
    }
    SampleAssembler& _assembler;
};

constexpr auto kNow = SampleAssembler::Wait::kNo;
constexpr uint32_t kPid = 4'100'000; // beyond pid_max: /proc knows nothing of it
const SampleAssembler::Settings kSettings{kPid, 127, {1'000'000, 1, 0}};
const auto kUser = static_cast<uint64_t>(PERF_CONTEXT_USER);

TEST(SampleAssembler, TellsOfTheOneProcessItsThreadsAndItsChildren)
{
    Reading sink;
    SampleAssembler assembler(kSettings, sink, &sink);
    Kernel kernel(assembler);
    kernel.sample(kPid, kPid, 100, {kUser, 0x10, 0x20});
    kernel.task(PERF_RECORD_FORK, kPid, kPid, kPid + 1, kPid);
    kernel.sample(kPid, kPid + 1, 90, {kUser, 0x10});
    kernel.sample(kPid, kPid, 105, {kUser, 0x10, 0x20});
    kernel.sample(UINT32_MAX, UINT32_MAX, 110, {});
    kernel.name(kPid, kPid, "next", PERF_RECORD_MISC_COMM_EXEC);
    kernel.mapping(kPid, "/bin/next");
    kernel.mapping(kPid + 5, "/bin/other");
    kernel.task(PERF_RECORD_FORK, kPid + 2, kPid, kPid + 2, kPid);
    kernel.mapping(kPid + 2, "/bin/child");
    kernel.task(PERF_RECORD_FORK, kPid + 7, kPid + 6, kPid + 7, kPid + 6);
    kernel.task(PERF_RECORD_EXIT, kPid, 1, kPid + 1, 1);
    kernel.sample(kPid, kPid, 120, {static_cast<uint64_t>(PERF_CONTEXT_KERNEL), ~0ULL << 16});
    kernel.task(PERF_RECORD_EXIT, kPid, 1, kPid, 1);
    EXPECT_TRUE(assembler.flush(kNow, 0).ok());
    const std::string pid = std::to_string(kPid);
    EXPECT_EQ(sink.text,
              pid + "/" + pid + "@100:2 " + pid + "/" + std::to_string(kPid + 1) + "@90:1 " + pid + "/" + pid
                  + "@105:2 " + pid + "/0@110:0 exec" + pid + "next fork" + pid + ">" + std::to_string(kPid + 2) + " "
                  + pid + "/" + pid + "@120:1 exit" + pid + " ");
    EXPECT_EQ(sink.mapped, "exec /bin/next=abcd01ff fork /bin/child=abcd01ff exit ");
    EXPECT_EQ(sink.kernel, 1u);
    EXPECT_TRUE(sink.lost.empty());
}

TEST(SampleAssembler, WaitsHaveStacksWhoeverElseWatchesSwitches)
{
    Reading sink;
    SampleAssembler::Settings settings = kSettings;
    settings.session.flags |= stacks::SessionRecord::kBlockedThreads;
    const std::unordered_set<uint64_t> clocks{1};
    settings.clockEvents = &clocks;
    SampleAssembler assembler(settings, sink, &sink);
    Kernel kernel(assembler);
    uint64_t timeNs = 1000;
    // Identifier and time of this recorder's event, and of another's whose clock is not ours.
    for (const auto& [event, sampleNs] : {std::pair<uint64_t, uint64_t>{2, timeNs}, {77, timeNs << 40}, {78, 0}}) {
        kernel.sample(kPid, kPid, sampleNs, {kUser, 0x10, 0x20, 0x30}, {}, event);
        kernel.switching(kPid, kPid, timeNs + 1, PERF_RECORD_MISC_SWITCH_OUT);
        kernel.switching(kPid, kPid, timeNs + 101, 0);
        timeNs += 1000;
    }
    assembler.settleWaits(900, timeNs);
    EXPECT_TRUE(assembler.flush(kNow, 0).ok());
    const std::string thread = std::to_string(kPid) + "/" + std::to_string(kPid) + "@";
    EXPECT_EQ(sink.text, thread + "1101:3b100 " + thread + "2101:3b100 " + thread + "3101:3b100 ");
}

TEST(SampleAssembler, DumpsAreReadWithinTheirBounds)
{
    SampleAssembler::Settings settings = kSettings;
    settings.dumpRingBytes = 1u << 20;
    const auto dump = [](uint64_t abi, size_t registers, std::vector<uint64_t> rest) {
        std::vector<uint64_t> words{abi};
        words.insert(words.end(), registers, 0x1000);
        words.insert(words.end(), rest.begin(), rest.end());
        return words;
    };
    const struct {
        const char* what;
        std::vector<uint64_t> behind;
        const char* frames; ///< of the sample
        uint64_t malformed;
    } rows[] = {
        {"a kernel thread", dump(PERF_SAMPLE_REGS_ABI_NONE, 0, {0}), ":2 ", 0},
        {"no stack", dump(PERF_SAMPLE_REGS_ABI_64, 17, {0}), ":1 ", 0},
        {"a whole one", dump(PERF_SAMPLE_REGS_ABI_64, 17, {16, 1, 2, 16}), ":1 ", 0},
        {"32-bit code", dump(PERF_SAMPLE_REGS_ABI_32, 17, {16, 1, 2, 8}), ":1 ", 0},
        {"filled beyond its size", dump(PERF_SAMPLE_REGS_ABI_64, 17, {16, 1, 2, 17}), ":2 ", 1},
        {"longer than the record", dump(PERF_SAMPLE_REGS_ABI_64, 17, {24, 1, 2}), ":2 ", 1},
        {"size near 2^64", dump(PERF_SAMPLE_REGS_ABI_64, 17, {UINT64_MAX - 7, 1, 2, 16}), ":2 ", 1},
        {"a register missing", dump(PERF_SAMPLE_REGS_ABI_64, 16, {}), ":2 ", 1},
    };
    for (const auto& row : rows) {
        Reading sink;
        SampleAssembler assembler(settings, sink, nullptr);
        Kernel kernel(assembler);
        kernel.sample(kPid, kPid, 100, {kUser, 0x10, 0x20}, row.behind);
        EXPECT_TRUE(assembler.flush(kNow, 0).ok());
        const std::string thread = std::to_string(kPid) + "/" + std::to_string(kPid);
        EXPECT_EQ(sink.text, thread + "@100" + row.frames) << row.what;
        EXPECT_EQ(sink.lost[stacks::LostCause::kMalformed], row.malformed) << row.what;
    }
}

TEST(SampleAssembler, DefinesAgainAfterABatchWasDropped)
{
    Reading sink;
    SampleAssembler assembler(kSettings, sink, nullptr);
    Kernel kernel(assembler);
    kernel.sample(kPid, kPid, 100, {kUser, 0x10, 0x20});
    EXPECT_TRUE(assembler.flush(kNow, 0).ok());
    sink.full = true;
    kernel.sample(kPid, kPid, 200, {kUser, 0x30});
    kernel.numbers(PERF_RECORD_LOST, {1, 40});
    kernel.task(PERF_RECORD_EXIT, kPid, 1, kPid, 1);
    EXPECT_EQ(assembler.flush(kNow, 0).code(), Code::kTimedOut);
    kernel.sample(kPid, kPid, 300, {kUser, 0x30});
    EXPECT_EQ(assembler.flush(kNow, 0).code(), Code::kTimedOut);
    sink.full = false;
    sink.text.clear();
    kernel.sample(kPid, kPid, 400, {kUser, 0x10, 0x20});
    EXPECT_TRUE(assembler.flush(kNow, 0).ok());
    const std::string thread = std::to_string(kPid) + "/" + std::to_string(kPid);
    EXPECT_EQ(sink.text, thread + "@400:2 ") << "no orphan, no gap";
    EXPECT_EQ(sink.lost[stacks::LostCause::kBatchDropped], 2u);
    EXPECT_EQ(sink.lost[stacks::LostCause::kEventsDropped], 1u);
    EXPECT_EQ(sink.lost[stacks::LostCause::kRingFull], 40u) << "its count stood in the dropped batch";
    sink.full = true;
    kernel.sample(kPid, kPid, 500, {kUser, 0x40});
    EXPECT_TRUE(assembler.flush(SampleAssembler::Wait::kForRoom, 0).ok()) << "the last batches wait";
    sink.gone = true;
    kernel.sample(kPid, kPid, 600, {kUser, 0x40});
    EXPECT_EQ(assembler.flush(kNow, 0).code(), Code::kPeerGone);
    const size_t before = sink.messages;
    kernel.sample(kPid, kPid, 700, {kUser, 0x40});
    EXPECT_EQ(assembler.flush(SampleAssembler::Wait::kForRoom, 0).code(), Code::kPeerGone);
    EXPECT_EQ(sink.messages, before) << "nothing is sent to a peer that is gone";
}

TEST(SampleAssembler, BeginsAGenerationWhenItsTablesAreFull)
{
    Reading sink;
    SampleAssembler assembler(kSettings, sink, nullptr);
    Kernel kernel(assembler);
    std::vector<uint64_t> chain(120);
    uint64_t next = 0;
    const size_t samples = stacks::kMaxNodes / chain.size() + 100;
    for (size_t i = 0; i < samples; ++i) {
        for (uint64_t& address : chain)
            address = ++next;
        kernel.sample(kPid, kPid, i, chain);
    }
    EXPECT_TRUE(assembler.flush(kNow, 0).ok());
    EXPECT_EQ(sink.reader.generation(), 2u);
    EXPECT_EQ(sink.text.find("orphan"), std::string::npos);
    EXPECT_EQ(static_cast<size_t>(std::count(sink.text.begin(), sink.text.end(), '@')), samples);
    EXPECT_TRUE(sink.lost.empty());
}

TEST(SampleAssembler, CountsWhatTheKernelLostOrGarbled)
{
    Reading sink;
    SampleAssembler assembler(kSettings, sink, nullptr);
    Kernel kernel(assembler);
    kernel.numbers(PERF_RECORD_LOST, {1, 40});
    kernel.numbers(PERF_RECORD_LOST_SAMPLES, {2});
    kernel.numbers(PERF_RECORD_THROTTLE, {1'000'000, 1, 77});
    kernel.numbers(PERF_RECORD_UNTHROTTLE, {6'000'000, 1, 78});
    kernel.numbers(PERF_RECORD_UNTHROTTLE, {9'000'000, 1, 77});
    ByteWriter hostile;
    for (const uint64_t value : {uint64_t{1}, uint64_t{kPid}, uint64_t{5}, UINT64_MAX / 8 + 2, uint64_t{0}})
        hostile.little(value);
    kernel.pass(PERF_RECORD_SAMPLE, 0, hostile); // a count whose size in bytes wraps
    kernel.pass(PERF_RECORD_SAMPLE, 0, ByteWriter());
    for (const uint32_t type : {PERF_RECORD_MMAP2, PERF_RECORD_COMM, PERF_RECORD_FORK, PERF_RECORD_EXIT})
        kernel.pass(type, 0, ByteWriter());
    EXPECT_TRUE(assembler.flush(kNow, 0).ok());
    EXPECT_EQ(sink.lost[stacks::LostCause::kRingFull], 42u);
    EXPECT_EQ(sink.lost[stacks::LostCause::kThrottled], 8u);
    EXPECT_EQ(sink.lost[stacks::LostCause::kMalformed], 6u);
    EXPECT_EQ(sink.text, "");
}

} // namespace
} // namespace vnt
