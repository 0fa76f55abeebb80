#include "collectors/stacks/StackInterner.h"

#include <gtest/gtest.h>
#include <linux/perf_event.h>

#include <algorithm>
#include <map>
#include <random>

#include "records/StackRecordReader.h"
#include "records/StackRecordWriter.h"

namespace vnt {
namespace {

constexpr auto kKernelMark = static_cast<uint64_t>(PERF_CONTEXT_KERNEL);
constexpr auto kUserMark = static_cast<uint64_t>(PERF_CONTEXT_USER);

struct Read : stacks::StackRecordHandler {
    stacks::StackRecordReader reader;
    void take(stacks::StackRecordWriter& writer)
    {
        const Status status = reader.read(writer.message(), *this);
        EXPECT_TRUE(status.ok()) << status.message();
        writer.messageSent();
    }
};

TEST(StackInterner, EveryStackReadsBackAsItWas)
{
    stacks::StackRecordWriter writer({1'000'000, 1, 0});
    StackInterner interner;
    Read read;
    std::mt19937_64 random(1);
    std::map<uint32_t, std::vector<uint64_t>> chains;
    // Many chains over few addresses share callers, so nodes and whole stacks both pass several growths.
    for (int i = 0; i < 60'000; ++i) {
        std::vector<uint64_t> chain;
        for (size_t depth = random() % 12; depth > 0; --depth)
            chain.push_back(0x400000 + random() % 40);
        const uint32_t stack = interner.intern(chain, 127, writer);
        const auto known = chains.emplace(stack, chain);
        ASSERT_EQ(known.first->second, chain) << "one number for two stacks";
        ASSERT_EQ(interner.intern(chain, 127, writer), stack) << "two numbers for one stack";
    }
    read.take(writer);
    std::vector<uint64_t> frames;
    for (const auto& [stack, chain] : chains) {
        EXPECT_TRUE(read.reader.frames(stack, frames));
        EXPECT_EQ(frames, chain);
    }
    EXPECT_TRUE(interner.takeNewKernelAddresses().empty());
}

TEST(StackInterner, MarksAreLeftOutAndCutStacksAreMarked)
{
    stacks::StackRecordWriter writer({1'000'000, 1, 0});
    StackInterner interner;
    const uint32_t empty = interner.intern(std::vector<uint64_t>{kUserMark}, 4, writer);
    const uint32_t mixed =
        interner.intern(std::vector<uint64_t>{kKernelMark, ~0ULL << 20, kUserMark, 0x10, 0x20}, 4, writer);
    const uint32_t cut = interner.intern(std::vector<uint64_t>{kUserMark, 0x10, 0x20, 0x30, 0x40}, 4, writer);
    const uint32_t other = interner.intern(std::vector<uint64_t>{kUserMark, 0x11, 0x20, 0x30, 0x40}, 4, writer);
    EXPECT_EQ(interner.takeNewKernelAddresses(), std::vector<uint64_t>{~0ULL << 20});
    EXPECT_TRUE(interner.takeNewKernelAddresses().empty()) << "told once";
    const uint32_t nodes = writer.nodeCount();
    EXPECT_EQ(nodes, 3u + 1 + 4 + 1) << "both cut stacks share the mark and three callers";

    Read read;
    read.take(writer);
    std::vector<uint64_t> frames;
    EXPECT_EQ(empty, 0u);
    EXPECT_TRUE(read.reader.frames(mixed, frames));
    EXPECT_EQ(frames, (std::vector<uint64_t>{~0ULL << 20, 0x10, 0x20}));
    EXPECT_FALSE(read.reader.frames(cut, frames));
    EXPECT_EQ(frames, (std::vector<uint64_t>{0x10, 0x20, 0x30, 0x40}));
    EXPECT_FALSE(read.reader.frames(other, frames));
    EXPECT_EQ(frames.front(), 0x11u);
}

TEST(StackInterner, SaysWhenAGenerationIsFull)
{
    stacks::StackRecordWriter writer({1'000'000, 1, 0});
    StackInterner interner;
    std::vector<uint64_t> chain(100);
    uint64_t next = 0;
    while (interner.roomFor(chain.size())) {
        for (uint64_t& address : chain)
            address = ++next;
        interner.intern(chain, 127, writer);
    }
    EXPECT_GT(writer.nodeCount(), stacks::kMaxNodes - 200);
    interner.clear();
    EXPECT_TRUE(interner.roomFor(chain.size()));
}

} // namespace
} // namespace vnt
