#include <gtest/gtest.h>
#include <sys/mman.h>

#include <map>
#include <random>

#include "collectors/heap/JournalReader.h"
#include "collectors/heap/LiveBlocks.h"
#include "platform/base/Mapping.h"

namespace vnt {
namespace {

using namespace journal;

/// The target's end of the memory, in the hands of the test.
class JournalTest : public testing::Test, protected JournalEventHandler {
protected:
    void SetUp() override
    {
        auto created = JournalReader::create(::getpid());
        ASSERT_TRUE(created.ok()) << created.status().message();
        reader = created.take();
        auto mapped = Mapping::create(totalBytes(kRings), PROT_READ | PROT_WRITE, MAP_SHARED, reader->memoryFd(), 0);
        ASSERT_TRUE(mapped.ok());
        mapping = mapped.take();
        shared = static_cast<Shared*>(mapping.address());
        rings = reinterpret_cast<Ring*>(static_cast<std::byte*>(mapping.address()) + kSharedBytes);
        shared->ringsUsed = 2;
    }
    void onEvent(const JournalEvent& event) override { events.push_back(event); }

    void put(Ring& ring, std::initializer_list<uint64_t> words)
    {
        for (const uint64_t word : words)
            ring.words[ring.header.head++ % kRingWords] = word;
        ring.header.lastTime = words.begin()[0] >> 4;
    }
    void allocate(Ring& ring, uint64_t time, uint64_t address, uint64_t slot = 0)
    {
        put(ring, {kAllocate | time << 4, address | slot << kLowBits, 32});
    }
    void free(Ring& ring, uint64_t time, uint64_t address) { put(ring, {kFree | time << 4, address}); }
    void drain(uint64_t now) { (void)reader->drain(now, /*marginTicks=*/0, stacks, *this); }
    [[nodiscard]] std::string addresses() const
    {
        std::string text;
        for (const JournalEvent& event : events)
            text += (event.kind == kFree ? " -" : " +") + std::to_string(event.address);
        return text;
    }

    std::unique_ptr<JournalReader> reader;
    Mapping mapping;
    Shared* shared = nullptr;
    Ring* rings = nullptr;
    HeapStacks stacks;
    std::vector<JournalEvent> events;
};

TEST_F(JournalTest, RingsAreMergedByTime)
{
    allocate(rings[0], 10, 1);
    free(rings[0], 40, 2);
    allocate(rings[1], 20, 2);
    allocate(rings[1], 50, 3);
    drain(45);
    EXPECT_EQ(addresses(), " +1 +2 -2");
    drain(60);
    EXPECT_EQ(addresses(), " +1 +2 -2 +3");
    EXPECT_EQ(rings[0].header.tail, rings[0].header.head);
}

TEST_F(JournalTest, ARecordBeingMadeHoldsTheOthersBack)
{
    free(rings[0], 8, 7);
    free(rings[0], 10, 1);
    rings[0].header.busy = 1; // its time is taken, and may be any from 10 on
    allocate(rings[1], 9, 8);
    allocate(rings[1], 20, 1);
    drain(30);
    EXPECT_EQ(addresses(), " -7 +8");
    free(rings[0], 15, 2);
    rings[0].header.busy = 0;
    drain(40);
    EXPECT_EQ(addresses(), " -7 +8 -1 -2 +1");
}

TEST_F(JournalTest, StacksAreRememberedBySlot)
{
    put(rings[0], {kStack | 2 << 8 | 7 << 16, 0x401000, 0x402000});
    allocate(rings[0], 1, 1, 7);
    allocate(rings[0], 2, 2, 7);
    put(rings[0], {kStack | 1 << 8 | 7 << 16, 0x403000});
    allocate(rings[0], 3, 3, 7);
    allocate(rings[0], 4, 4, kNoStack);
    drain(10);
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].stack, events[1].stack);
    EXPECT_NE(events[0].stack, events[2].stack);
    EXPECT_EQ(events[3].stack, 0u);
    std::vector<uint64_t> frames;
    stacks.frames(events[0].stack, frames);
    EXPECT_EQ(frames, (std::vector<uint64_t>{0x401000, 0x402000}));
}

TEST_F(JournalTest, CountsAreThoseOfTheThreadThatSaidItsIdLast)
{
    const auto count = [this](uint64_t time, uint64_t object, uint64_t before, Counting counting) {
        put(rings[0],
            {kCount | time << 4, object | uint64_t{kNoStack} << kLowBits, before | uint64_t{counting} << kLowBits});
    };
    put(rings[0], {kThread | 77 << 4});
    rings[0].header.lastTime = 0;
    count(1, 0x1000, 1, kRef);
    allocate(rings[0], 2, 0x2000);
    put(rings[0], {kThread | 78 << 4}); // the ring's next owner
    count(3, 0x1000, 2, kUnref);
    drain(10);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].thread, 77u);
    EXPECT_EQ(events[0].counting, heap::Counting::kRef);
    EXPECT_EQ(events[0].sizeBytes, 1u);
    EXPECT_EQ(events[1].kind, kAllocate);
    EXPECT_EQ(events[2].thread, 78u);
    EXPECT_EQ(events[2].counting, heap::Counting::kUnref);
}

/// What makes no sense ends its own ring only.
TEST_F(JournalTest, AHostileRingIsGivenUp)
{
    struct Row {
        const char* what;
        void (*spoil)(Ring& ring);
    };
    const Row rows[] = {
        {"unknown kind",
         [](Ring& ring) {
             ring.words[0] = 14;
             ring.header.head = 1;
         }},
        {"a count that breaks off",
         [](Ring& ring) {
             ring.words[0] = kCount;
             ring.header.head = 2;
         }},
        {"an unknown call",
         [](Ring& ring) {
             ring.words[0] = kCount;
             ring.words[2] = uint64_t{heap::kCountings} << kLowBits;
             ring.header.head = 3;
         }},
        {"record of zeros", [](Ring& ring) { ring.header.head = 4; }},
        {"head beyond the ring", [](Ring& ring) { ring.header.head = kRingWords + 1; }},
        {"head far away", [](Ring& ring) { ring.header.head = 0x80000000; }},
        {"event cut off",
         [](Ring& ring) {
             ring.words[0] = kAllocate;
             ring.header.head = 2;
         }},
        {"stack cut off",
         [](Ring& ring) {
             ring.words[0] = kStack | 5 << 8;
             ring.header.head = 4;
         }},
        {"stack too deep",
         [](Ring& ring) {
             ring.words[0] = kStack | 0xff << 8;
             ring.header.head = 1000;
         }},
        {"slot too large",
         [](Ring& ring) {
             ring.words[0] = kStack | 1 << 8 | uint64_t{kStackSlots} << 16;
             ring.header.head = 2;
         }},
    };
    for (const Row& row : rows) {
        SetUp();
        events.clear();
        row.spoil(rings[0]);
        allocate(rings[1], 5, 55);
        drain(10);
        allocate(rings[1], 15, 56);
        drain(20);
        EXPECT_EQ(addresses(), " +55 +56") << row.what;
        EXPECT_EQ(reader->lost(heap::LostCause::kMalformed), 1u) << row.what;
    }
}

TEST_F(JournalTest, RandomRingsNeitherCrashNorHang)
{
    std::mt19937_64 random(20240229);
    for (int round = 0; round < 300; ++round) {
        SetUp();
        shared->ringsUsed = static_cast<uint32_t>(random() % 4 == 0 ? random() : 3);
        for (int r = 0; r < 3; ++r) {
            for (size_t i = 0; i < 200; ++i)
                rings[r].words[i] = (random() & ~uint64_t{0xf}) >> (random() % 50) | random() % 6;
            rings[r].header.head = static_cast<uint32_t>(random() % 200);
            rings[r].header.busy = random() % 2;
        }
        drain(random());
        reader->drainToEnd(stacks, *this);
        events.clear();
    }
}

TEST(LiveBlocks, AgreesWithAMap)
{
    std::mt19937_64 random(7);
    LiveBlocks blocks;
    std::map<uint64_t, uint64_t> truth;
    for (int i = 0; i < 200'000; ++i) {
        const uint64_t address = (random() % 5000) * 16 + 0x7f0000000000;
        const uint32_t slot = blocks.find(address);
        ASSERT_EQ(slot != LiveBlocks::kNone, truth.count(address) != 0);
        if (slot == LiveBlocks::kNone) {
            LiveBlock block;
            block.address = address;
            block.sizeBytes = random() % 100;
            truth[address] = block.sizeBytes;
            ASSERT_NE(blocks.add(block), LiveBlocks::kNone);
        } else if (random() % 3 != 0) {
            ASSERT_EQ(blocks.block(slot).sizeBytes, truth[address]);
            truth.erase(address);
            blocks.remove(slot);
        } else {
            blocks.detach(slot);
            ASSERT_EQ(blocks.find(address), LiveBlocks::kNone);
            blocks.attach(slot);
        }
    }
    uint64_t bytes = 0;
    for (const auto& [address, size] : truth)
        bytes += size;
    EXPECT_EQ(blocks.count(), truth.size());
    EXPECT_EQ(blocks.bytes(), bytes);
}

} // namespace
} // namespace vnt
