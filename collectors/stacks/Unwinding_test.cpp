#include <gtest/gtest.h>

#include "collectors/stacks/DumpSize.h"
#include "collectors/stacks/EventSet.h"
#include "collectors/stacks/StackSampler_testing.h"

namespace vnt {
namespace {

/// What the stacks of tests/targets/deepsplit show.
class DeepRecording : public RecordSink, public stacks::StackRecordHandler {
public:
    explicit DeepRecording(const std::string& functions) : _functions(functions) { }
    Status trySend(std::span<const std::byte> message) override
    {
        MutexLock lock(_mutex);
        EXPECT_TRUE(_reader.read(message, *this).ok());
        _changed.notifyAll();
        return {};
    }
    bool waitForDeep(size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        MutexLock lock(_mutex);
        while (deep < count) {
            if (!_changed.waitUntil(lock, deadline))
                return false;
        }
        return true;
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { ADD_FAILURE() << text; }
    void onLost(uint64_t, stacks::LostCause, uint64_t newly, uint64_t) override { lost += newly; }
    void onSample(const stacks::SampleRecord& sample) override
    {
        std::vector<uint64_t> frames;
        const bool isWhole = _reader.frames(sample.stack, frames);
        std::map<std::string, size_t> counts;
        for (const uint64_t address : frames)
            ++counts[_functions.at(address)];
        if (counts["work"] == 0)
            return; // before or after what is counted
        ++samples;
        firstNs = std::min(firstNs, sample.timeNs);
        lastNs = std::max(lastNs, sample.timeNs);
        cut += !isWhole;
        // Leaf, work, the descent, and what called it through the C library.
        const bool isDeep = counts["descend"] + counts["descend_big"] == 30 && counts["compare"] == 1;
        deep += isDeep;
        cutAtFirst += !isDeep && deep == 0;
        deepAndWhole += isDeep && isWhole;
        throughSignal += counts["on_signal"] == 1;
        for (const char* leaf : {"spin_60", "spin_30", "fill_10"})
            byLeaf[leaf] += counts[leaf] != 0;
        inLibrary += counts["fill_10"] != 0 && _functions.at(frames[0]) != "fill_10";
    }

    [[nodiscard]] double share(size_t count) const { return samples ? 100.0 * double(count) / double(samples) : 0; }

    size_t samples = 0, cut = 0, deep = 0, cutAtFirst = 0, deepAndWhole = 0, throughSignal = 0, inLibrary = 0;
    uint64_t lost = 0, firstNs = UINT64_MAX, lastNs = 0;
    std::map<std::string, size_t> byLeaf;

private:
    Mutex _mutex;
    Condition _changed;
    stacks::StackRecordReader _reader;
    FunctionMap _functions;
};

const Placement kProcessors = Placement::kProcessors;
const Placement kThreads = Placement::kThreads;

struct Case {
    const char* name;
    const char* program;
    const char* mode;
    bool fitsAtFirst; ///< in the dumps that sampling begins with
};

class UnwindingTest : public testing::TestWithParam<std::tuple<const Placement*, Case>> { };

std::string caseName(const testing::TestParamInfo<UnwindingTest::ParamType>& info)
{
    return std::string(std::get<1>(info.param).name)
        + (*std::get<0>(info.param) == Placement::kThreads ? "OnThreads" : "OnProcessors");
}

const Case kCases[] = {
    {"WithFramePointers", "/deepsplit", "", true},
    {"WithoutFramePointers", "/deepsplitframeless", "", true},
    {"InASignalHandler", "/deepsplitframeless", "signal", true},
#if VNT_HAVE_32BIT
    {"In32BitCode", "/deepsplit32", "", true},
#endif
    {"OnALargeStack", "/deepsplitframeless", "big", false},
};
INSTANTIATE_TEST_SUITE_P(Targets, UnwindingTest,
                         testing::Combine(testing::Values(&kProcessors, &kThreads), testing::ValuesIn(kCases)),
                         caseName);

TEST_P(UnwindingTest, StacksAreWholeAndLeavesHaveTheirCallers)
{
    const auto& [placement, row] = GetParam();
    Target target(Target::Begin::kRunning, "60000", row.mode, row.program);
    DeepRecording recording(target.line());
    StackSamplerOptions options;
    options.pid = target.pid();
    auto sampler = startStackSampler(options, recording, nullptr, placement);
    if (!sampler.ok())
        GTEST_SKIP() << "CANNOT SAMPLE HERE: " << sampler.status().message();
    ASSERT_TRUE(recording.waitForDeep(500));
    ASSERT_TRUE(sampler.value()->stop().ok());

    EXPECT_LT(recording.samples, tooManySamples(recording.firstNs, recording.lastNs)) << "some were counted twice";
    // A stack too large for the first dumps shows cut until the reader is let run; after that, dumps are sized so that
    // one in a hundred is cut at most.
    EXPECT_TRUE(recording.cutAtFirst == 0 || !row.fitsAtFirst) << recording.cutAtFirst;
    const size_t sinceDeep = recording.samples - recording.cutAtFirst;
    EXPECT_LE(sinceDeep - recording.deep, sinceDeep / 20);
    EXPECT_EQ(recording.samples - recording.deepAndWhole, recording.cut) << "whole is said of whole stacks only";
    EXPECT_NEAR(recording.share(recording.byLeaf["spin_60"]), 60, 10);
    EXPECT_NEAR(recording.share(recording.byLeaf["spin_30"]), 30, 8);
    EXPECT_NEAR(recording.share(recording.byLeaf["fill_10"]), 10, 5) << "the caller of a library function";
    EXPECT_GT(recording.inLibrary, 5u);
    EXPECT_EQ(recording.throughSignal, std::string_view(row.mode) == "signal" ? recording.deep : 0);
}

TEST(DumpSize, FollowsTheNeed)
{
    const auto note = [](DumpSize& size, int samples, size_t bytes) {
        for (int i = 0; i < samples; ++i)
            size.noteNeed(bytes);
    };
    DumpSize size(1'000'000, 1u << 20);
    EXPECT_EQ(size.bytes(), 8192u);
    note(size, 20, 100);
    EXPECT_FALSE(size.review()) << "too few to tell";
    note(size, 20, 100);
    EXPECT_TRUE(size.review());
    EXPECT_EQ(size.bytes(), 512u);

    // One in fifty is cut: grows, and does not shrink again so soon.
    note(size, 49, 100);
    size.noteCut(8192);
    size.noteCut(512);
    EXPECT_TRUE(size.review());
    EXPECT_EQ(size.bytes(), 2048u);
    note(size, 100, 100);
    EXPECT_FALSE(size.review());
    for (int i = 0; i < 10; ++i)
        size.noteCut(512); // taken before
    note(size, 1000, 1600);
    EXPECT_FALSE(size.review()) << "what was small before does not count, and the present size is needed";
    note(size, 1000, 512);
    EXPECT_TRUE(size.review());
    EXPECT_EQ(size.bytes(), 512u);

    // A few that are all cut are enough to tell.
    EXPECT_FALSE(size.review());
    for (int i = 0; i < 4; ++i)
        size.noteCut(512);
    EXPECT_TRUE(size.review());
    EXPECT_EQ(size.bytes(), 2048u);

    // A few that need more than others are worth it, and the largest is the end.
    for (int i = 0; i < 10; ++i) {
        for (int n = 0; n < 40; ++n)
            size.noteCut(size.bytes());
        (void)size.review();
    }
    EXPECT_EQ(size.bytes(), 32768u);
}

TEST(DumpSize, KeepsWithinWhatTheRateAndTheRingAllow)
{
    struct {
        uint64_t intervalNs;
        size_t ringBytes;
        uint32_t first;
        uint32_t largest;
    } const rows[] = {
        {1'000'000, 1u << 20, 8192, 32768}, {100'000, 4u << 20, 8192, 8192}, {40'000, 4u << 20, 2048, 2048},
        {1'000'000, 32u << 10, 2048, 2048}, {1'000'000, 4096, 512, 512},
    };
    for (const auto& row : rows) {
        DumpSize size(row.intervalNs, row.ringBytes);
        EXPECT_EQ(size.bytes(), row.first) << row.intervalNs;
        for (int i = 0; i < 1000; ++i) {
            size.noteCut(size.bytes());
            (void)size.review();
        }
        EXPECT_EQ(size.bytes(), row.largest) << row.intervalNs;
    }
}

} // namespace
} // namespace vnt
