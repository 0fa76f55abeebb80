#include "collectors/orphans/LeakGraph.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>

#include "collectors/orphans/Reachability.h"

namespace vnt::orphans {
namespace {

constexpr size_t kNodes = 8;
constexpr size_t kWords = 8;

/// Blocks within this process, whose memory is read as a target's is.
struct Heap {
    alignas(4096) std::array<std::array<uint64_t, kWords>, kNodes> nodes{};

    [[nodiscard]] uint64_t address(size_t node, size_t byte = 0) const
    {
        return reinterpret_cast<uint64_t>(nodes[node].data()) + byte;
    }
    [[nodiscard]] std::vector<LiveBlock> blocks() const
    {
        std::vector<LiveBlock> result(kNodes);
        for (size_t i = 0; i < kNodes; ++i) {
            result[i].address = address(i);
            result[i].sizeBytes = kWords * 8;
            result[i].timeNs = 100 - i; // the last is the oldest
        }
        return result;
    }
    [[nodiscard]] Range range() const
    {
        const uint64_t start = address(0) / 4096 * 4096;
        return {start, start + 4096};
    }
};

struct Row {
    const char* what;
    std::vector<std::pair<size_t, size_t>> pointers; ///< from, to
    std::vector<size_t> leaked;
    std::string arranged; ///< a leak: node, letter of its kind, and the holder's node
};

TEST(LeakGraph, TellsHowLeaksHoldOneAnother)
{
    const Row rows[] = {
        {"nothing", {}, {}, ""},
        {"alone, the oldest first", {}, {0, 1}, "1d 0d"},
        {"a list", {{0, 1}, {1, 2}}, {0, 1, 2}, "0d 1i<0 2i<1"},
        {"what a live block points to is no leak's business", {{0, 5}, {5, 1}}, {0, 1}, "1d 0d"},
        {"held twice", {{0, 2}, {1, 2}}, {0, 1, 2}, "1d 2i<1 0d"},
        {"its own part", {{3, 3}}, {3}, "3d"},
        {"a cycle, by its oldest", {{0, 1}, {1, 2}, {2, 0}}, {0, 1, 2}, "2c 0c<2 1c<0"},
        {"a cycle with something to hold", {{0, 1}, {1, 0}, {1, 4}}, {0, 1, 4}, "1c 0c<1 4i<1"},
        {"a cycle that a leak holds", {{3, 0}, {0, 1}, {1, 0}}, {0, 1, 3}, "3d 0i<3 1i<0"},
        {"a cycle that a cycle holds", {{0, 1}, {1, 0}, {1, 2}, {2, 3}, {3, 2}}, {0, 1, 2, 3}, "1c 0c<1 2i<1 3i<2"},
        {"two cycles", {{0, 1}, {1, 0}, {4, 5}, {5, 4}}, {0, 1, 4, 5}, "5c 4c<5 1c 0c<1"},
    };
    auto heap = std::make_unique<Heap>();
    for (const Row& row : rows) {
        heap->nodes = {};
        std::array<size_t, kNodes> used{};
        for (const auto& [from, to] : row.pointers)
            heap->nodes[from][used[from]++] = heap->address(to, /*byte=*/to * 3); // interior ones, too
        const BlockIndex blocks(heap->blocks(), {heap->range()});
        MemoryImage image;
        ASSERT_TRUE(image.capture(::getpid(), {heap->range()}, 1u << 20).ok());
        std::vector<uint32_t> leaked(row.leaked.begin(), row.leaked.end());
        const auto leaks = arrangeLeaks(leaked, blocks, image, 8);
        std::string arranged;
        for (const Leak& leak : leaks) {
            arranged += (arranged.empty() ? "" : " ") + std::to_string(leak.block) + "dci"[static_cast<int>(leak.kind)];
            if (leak.holder != 0)
                arranged += "<" + std::to_string(leaks[leak.holder - 1].block);
        }
        EXPECT_EQ(arranged, row.arranged) << row.what;
    }
}

/// Half-words are pointers where the target's are.
TEST(Reachability, FollowsPointersOfTheTargetsWidth)
{
    auto heap = std::make_unique<Heap>();
    const BlockIndex blocks(heap->blocks(), {heap->range()});
    heap->nodes[0][1] = heap->address(1);
    heap->nodes[1][7] = heap->address(2, 63); // the last byte
    heap->nodes[2][0] = heap->address(kNodes - 1, 64); // behind the last
    std::memcpy(reinterpret_cast<std::byte*>(heap->nodes[2].data()) + 12, heap->nodes[0].data() + 1, 8); // not aligned
    MemoryImage image;
    ASSERT_TRUE(image.capture(::getpid(), {heap->range()}, 1u << 20).ok());
    Reachability wide(blocks, image, 8);
    Roots roots;
    roots.words = {heap->address(0, 5), 0, UINT64_MAX};
    wide.addRoots(roots);
    std::string reached;
    for (uint32_t i = 0; i < kNodes; ++i)
        reached += wide.isReached(i) ? '1' : '0';
    EXPECT_EQ(reached, "11100000");
}

TEST(MemoryMap, ReadsWhatTheKernelWrites)
{
    const auto maps = parseMaps("00400000-00402000 r-xp 00000000 08:01 12 /opt/a program\n"
                                "00402000-00403000 rw-p 00002000 08:01 12 /opt/a program\n"
                                "nonsense\n"
                                "00500000-00400000 rw-p 00000000 00:00 0\n"
                                "55550000-55570000 rw-p 00000000 00:00 0                          [heap]\n"
                                "7f0000000000-7f0000001000 ---p 00000000 00:00 0 \n"
                                "7f0000001000-7f0000002000 rw-s 00000000 00:05 9 /dev/dri/card0\n"
                                "7f0000002000-7f0000003000 rw-s 00000000 00:05 9 /memfd:vantora-heap (deleted)\n"
                                "7f0000003000-7f0000004000 rw-p 00000000 08:01 7 /usr/lib/libc.so.6\n"
                                "7f0000004000-7f0000005000 rw-s 00000000 00:05 9 /dev/shm/x\n"
                                "7ffd00000000-7ffd00001000 r--p 00000000 00:00 0 [vvar]\n"
                                "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0 [vsyscall]");
    std::string text;
    for (const MapEntry& entry : maps)
        text += entry.canHoldPointers() ? (entry.isCLibrary() ? 'c' : 'y') : '.';
    EXPECT_EQ(text, ".yyy..cy..");
    EXPECT_EQ(maps[0].path, "/opt/a program");
    EXPECT_EQ(maps[2].range, (Range{0x55550000, 0x55570000}));
}

TEST(MemoryMap, RangesAreTakenOutOfRanges)
{
    using Ranges = std::vector<Range>;
    const struct {
        const char* what;
        Ranges from, holes, left;
    } rows[] = {
        {"nothing", {}, {{1, 2}}, {}},
        {"no hole", {{10, 20}, {30, 40}}, {{0, 10}, {20, 30}}, {{10, 20}, {30, 40}}},
        {"in the midst", {{10, 20}}, {{12, 13}, {15, 16}}, {{10, 12}, {13, 15}, {16, 20}}},
        {"across two", {{10, 20}, {20, 30}, {40, 50}}, {{15, 45}}, {{10, 15}, {45, 50}}},
        {"all of it", {{10, 20}}, {{10, 20}}, {}},
        {"one behind the other", {{10, 20}}, {{5, 11}, {11, 12}, {19, 25}}, {{12, 19}}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(without(row.from, row.holes), row.left) << row.what;
    Ranges ranges{{30, 40}, {10, 20}, {15, 25}, {25, 26}, {50, 50}};
    normalize(ranges);
    EXPECT_EQ(ranges, (Ranges{{10, 26}, {30, 40}}));
}

} // namespace
} // namespace vnt::orphans
