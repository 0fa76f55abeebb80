#include "collectors/orphans/BlockIndex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace vnt::orphans {
namespace {

constexpr uint64_t kMiB = 1u << 20;

LiveBlock block(uint64_t address, uint64_t size, uint64_t timeNs = 1)
{
    LiveBlock one;
    one.address = address;
    one.sizeBytes = size;
    one.timeNs = timeNs;
    return one;
}

TEST(BlockIndex, FindsWhatASearchThroughAllFinds)
{
    std::mt19937_64 random(7);
    std::vector<LiveBlock> blocks;
    const uint64_t places[] = {0x1000, 0x555500000000, 0x7ffff0000000 - 512 * kMiB, (uint64_t{3} << 32) - 5000};
    for (const uint64_t place : places) {
        uint64_t at = place;
        for (int i = 0; i < 3000; ++i) {
            at += 16 * (random() % 40);
            const uint64_t size = i % 500 == 0 ? 5 * kMiB : random() % 600; // large ones stand in no table
            blocks.push_back(block(at, size));
            at += std::max<uint64_t>(size, 1) + 15;
            at &= ~uint64_t{15};
        }
    }
    std::shuffle(blocks.begin(), blocks.end(), random);
    const BlockIndex index(blocks, {{0, uint64_t{1} << 47}});
    ASSERT_EQ(index.count(), blocks.size());
    std::vector<LiveBlock> sorted = blocks;
    std::sort(sorted.begin(), sorted.end(),
              [](const LiveBlock& a, const LiveBlock& b) { return a.address < b.address; });
    for (uint32_t i = 0; i < index.count(); ++i) {
        const uint64_t start = sorted[i].address;
        const uint64_t size = std::max<uint64_t>(sorted[i].sizeBytes, 1);
        ASSERT_EQ(index.block(i).address, start);
        for (const uint64_t inside : {start, start + size / 2, start + size - 1})
            ASSERT_EQ(index.find(inside), i) << std::hex << inside;
        const uint64_t behind = start + size;
        const bool next = i + 1 < index.count() && sorted[i + 1].address == behind;
        ASSERT_EQ(index.find(behind), next ? i + 1 : BlockIndex::kNone) << std::hex << behind;
        ASSERT_EQ(index.firstEndingBehind(start), i);
    }
    for (const uint64_t nowhere : {uint64_t{0}, uint64_t{0xfff}, UINT64_MAX, uint64_t{1} << 47})
        EXPECT_EQ(index.find(nowhere), BlockIndex::kNone) << nowhere;
}

/// A target can say what it likes of its blocks, and lose the news of a free.
TEST(BlockIndex, WhatCannotBeIsLeftOut)
{
    const std::vector<Range> mapped{{0x10000, 0x20000}, {0x30000, 0x40000}};
    const struct {
        const char* what;
        std::vector<LiveBlock> blocks;
        std::vector<uint64_t> left;
    } rows[] = {
        {"nothing", {}, {}},
        {"not mapped", {block(0x8000, 16), block(0x20000, 16), block(0x40000, 1), block(0x30000, 16)}, {0x30000}},
        {"no address", {block(~uint64_t{0}, 16), block(uint64_t{1} << 47, 16), block(0x10000, 8)}, {0x10000}},
        {"overlapped by a younger one", {block(0x10000, 100, 5), block(0x10040, 100, 9)}, {0x10040}},
        {"over an older one's rest", {block(0x10000, 100, 9), block(0x10040, 100, 5)}, {0x10000}},
        {"over several", {block(0x10000, 8, 1), block(0x10010, 8, 1), block(0x10000, 64, 7)}, {0x10000}},
        {"at the same place", {block(0x10000, 8, 3), block(0x10000, 8, 2)}, {0x10000}},
        {"larger than its mapping", {block(0x1fff0, uint64_t{1} << 46), block(0x30000, 16)}, {0x1fff0, 0x30000}},
    };
    for (const auto& row : rows) {
        const BlockIndex index(row.blocks, mapped);
        std::vector<uint64_t> left;
        for (uint32_t i = 0; i < index.count(); ++i)
            left.push_back(index.place(i).start);
        EXPECT_EQ(left, row.left) << row.what;
    }
    EXPECT_EQ(BlockIndex({block(0x1fff0, uint64_t{1} << 46)}, mapped).place(0).sizeBytes, 16u);
}

} // namespace
} // namespace vnt::orphans
