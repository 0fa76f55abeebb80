#include "bundle/HeapProfile.h"

#include <gtest/gtest.h>

#include "bundle/HeapProfileBuilder.h"
#include "bundle/TestBundle.h"
#include "records/HeapRecordWriter.h"

namespace vnt {
namespace {

using heap::Function;
using heap::HeapRecordWriter;
using test::kModuleStart;
using test::kTextAddress;

constexpr uint64_t kStart = 100 * test::kSecondNs;
// Functions of 0x100 bytes each.
constexpr uint64_t kMain = kModuleStart + 0x10;
constexpr uint64_t kMake = kModuleStart + 0x110;
constexpr uint64_t kCopy = kModuleStart + 0x210;

struct HeapProfileTest : testing::Test {
    Remarks remarks;
    Ref<MutableDictionary> signatures;
    HeapProfile profile;
    std::unique_ptr<HeapProfileBuilder> builder;
    HeapRecordWriter writer{{0x2d0800, 0}};

    void SetUp() override
    {
        const std::string path = test::freshDirectory("heap") + "/program";
        test::writeText(path,
                        test::testElf<test::Elf64>({{"main", kTextAddress, 0x100},
                                                    {"make", kTextAddress + 0x100, 0x100},
                                                    {"copy", kTextAddress + 0x200, 0x100}},
                                                   "p"));
        const auto process = test::processSignature(
            42, "program", {test::image(kModuleStart, test::kTextSize, test::kTextOffset, path, "70")});
        signatures = test::signaturesOf({{42, process}});
        profile.symbolizer = std::make_unique<Symbolizer>(signatures.get(), remarks);
        builder = std::make_unique<HeapProfileBuilder>(*profile.symbolizer, remarks);
        writer.addTarget(kStart, {42, 0, "program"});
    }
    uint32_t stack(std::initializer_list<uint64_t> outerToInner)
    {
        uint32_t node = 0;
        uint64_t caller = 0;
        for (const uint64_t address : outerToInner) {
            node = writer.addNode(node, caller, address);
            caller = address;
        }
        return node;
    }
    void send()
    {
        builder->add(writer.message());
        writer.messageSent();
    }
    [[nodiscard]] const HeapSite* site(const std::string& function) const
    {
        for (const HeapSite& one : profile.sites) {
            if (profile.symbolizer->symbol(one.symbol).function == function)
                return &one;
        }
        return nullptr;
    }
};

TEST_F(HeapProfileTest, SitesPeakAndTemporariesAddUp)
{
    const uint32_t viaMain = stack({kMain, kMake});
    const uint32_t viaCopy = stack({kMain, kCopy, kMake});
    writer.addAllocate(kStart + 1, Function::kMalloc, 0, viaMain, 100, 0x1000);
    writer.addAllocate(kStart + 2, Function::kOperator, 1, viaCopy, 500, 0x2000);
    writer.addFree(kStart + 3, Function::kOperator, 1); // at once: temporary
    send();
    writer.addAllocate(kStart + 4, Function::kMalloc, 1, viaMain, 0, 0x3000); // the slot again
    writer.addFree(kStart + 5, Function::kMalloc, 0); // not temporary
    writer.addFreeUnknown(kStart + 6, Function::kMalloc, 0x9000);
    send();
    builder->finish(profile);
    const HeapTotals& totals = profile.totals;
    EXPECT_EQ(totals.all.allocations, 3u);
    EXPECT_EQ(totals.frees, 3u);
    EXPECT_EQ(totals.unknownFrees, 1u);
    EXPECT_EQ(totals.all.liveBlocks, 1u);
    EXPECT_EQ(totals.all.liveBytes, 0u);
    EXPECT_EQ(totals.all.temporary, 1u);
    EXPECT_EQ(totals.peakBytes, 600u);
    EXPECT_EQ(totals.peakTimeNs, kStart + 2);
    EXPECT_EQ(totals.bySize[0], 1u); // 0 bytes
    EXPECT_EQ(totals.bySize[7], 1u); // 64 to 127
    EXPECT_EQ(totals.bySize[9], 1u); // 256 to 511
    // One site, whatever called it; its callers are those of the heaviest path.
    ASSERT_EQ(profile.sites.size(), 1u);
    const HeapSite* make = site("make");
    ASSERT_TRUE(make);
    EXPECT_EQ(make->counts.bytes, 600u);
    ASSERT_EQ(make->callers.size(), 2u);
    EXPECT_EQ(profile.symbolizer->symbol(make->callers[0]).function, "copy");
}

TEST_F(HeapProfileTest, AnotherProgramBeginsWithoutBlocks)
{
    const uint32_t make = stack({kMain, kMake});
    writer.addAllocate(kStart + 1, Function::kMalloc, 0, make, 100, 0x1000);
    writer.addTarget(kStart + 2, {42, heap::TargetRecord::k32Bit, "next"});
    writer.addFree(kStart + 3, Function::kMalloc, 0); // no block of this program
    send();
    builder->finish(profile);
    EXPECT_EQ(profile.totals.all.liveBlocks, 0u);
    EXPECT_EQ(profile.totals.unknownFrees, 1u);
    EXPECT_EQ(profile.totals.targetName, "next");
    EXPECT_TRUE(profile.totals.is32Bit);
}

/// After a lost batch the numbers stay those of what is there.
TEST_F(HeapProfileTest, LostFreesDoNotCountTwice)
{
    const uint32_t make = stack({kMain, kMake});
    writer.addAllocate(kStart + 1, Function::kMalloc, 0, make, 100, 0x1000);
    send();
    writer.addFree(kStart + 2, Function::kMalloc, 0);
    writer.messageDropped();
    writer.addLost(kStart + 3, heap::LostCause::kBatchDropped, 1);
    writer.addAllocate(kStart + 3, Function::kMalloc, 0, make, 50, 0x1000); // whose free was lost
    writer.addFreedOutside(kStart + 4, 7); // a slot never seen
    writer.addFree(kStart + 5, Function::kMalloc, heap::kMaxSlots - 1);
    send();
    builder->finish(profile);
    EXPECT_EQ(profile.totals.all.allocations, 2u);
    EXPECT_EQ(profile.totals.all.liveBlocks, 1u);
    EXPECT_EQ(profile.totals.all.liveBytes, 50u);
    EXPECT_EQ(profile.totals.lost(), 1u);
}

TEST_F(HeapProfileTest, FaultsHaveTheirStacks)
{
    const uint32_t make = stack({kMain, kMake});
    const uint32_t copy = stack({kMain, kCopy});
    writer.addFault(kStart + 1, {heap::Fault::kWritten, 0x1000, 20, make, copy, 0});
    send();
    builder->finish(profile);
    ASSERT_EQ(profile.faults.size(), 1u);
    const HeapFault& fault = profile.faults[0];
    EXPECT_EQ(profile.symbolizer->symbol(fault.allocated.at(0)).function, "make");
    EXPECT_EQ(profile.symbolizer->symbol(fault.freed.at(0)).function, "copy");
    EXPECT_TRUE(fault.noticed.empty());
    EXPECT_EQ(fault.byte, 20u);
}

TEST_F(HeapProfileTest, ObjectsLeftWithMoreReferencesTakenThanGivenBackAreTold)
{
    using heap::Counting;
    const uint32_t make = stack({kMain, kMake});
    const uint32_t copy = stack({kMain, kCopy});
    uint64_t timeNs = kStart;
    const auto count = [&](uint64_t object, Counting counting, uint64_t before, uint32_t by) {
        writer.addCount(++timeNs, {counting, 7, by, before, object});
    };
    // Ended by its last release, and another object in its place that is left as it was made.
    count(0x1000, Counting::kRef, 1, make);
    count(0x1000, Counting::kUnref, 2, make);
    count(0x1000, Counting::kUnref, 1, make);
    count(0x1000, Counting::kRef, 1, make);
    count(0x1000, Counting::kUnref, 2, copy);
    // Two that are left alike, and one that somebody gave back where it was not seen.
    for (const uint64_t object : {0x2000, 0x3000}) {
        count(object, Counting::kRef, 1, make);
        count(object, Counting::kRef, 2, make);
        count(object, Counting::kUnref, 3, copy);
    }
    count(0x4000, Counting::kRef, 1, make);
    count(0x4000, Counting::kTakeRef, 1, make);
    // Retained for good, but its memory is gone; and one whose count nobody sees.
    writer.addAllocate(++timeNs, Function::kMalloc, 0, make, 64, 0x5000);
    count(0x5000, Counting::kRef, 1, make);
    writer.addFree(++timeNs, Function::kMalloc, 0);
    count(0x6000, Counting::kRetain, 0, copy);
    count(0x6000, Counting::kRelease, 0, copy);
    count(0x6000, Counting::kRelease, 0, copy);
    count(0x6000, Counting::kRetain, 0, copy);
    send();
    builder->finish(profile);
    const ReferenceCounts& counts = profile.counts;
    EXPECT_EQ(counts.retains, 10u);
    EXPECT_EQ(counts.releases, 7u);
    EXPECT_EQ(counts.unchanged, 1u);
    EXPECT_EQ(counts.objects, 8u);
    EXPECT_EQ(counts.unbalancedObjects, 3u);
    ASSERT_EQ(counts.unbalanced.size(), 2u);
    EXPECT_EQ(counts.unbalanced[0].objects, 2u);
    EXPECT_EQ(counts.unbalanced[0].retains, 4u);
    EXPECT_EQ(counts.unbalanced[0].releases, 2u);
    EXPECT_EQ(counts.unbalanced[0].address, 0x2000u);
    EXPECT_EQ(counts.unbalanced[0].count, 2u);
    ASSERT_EQ(counts.unbalanced[0].uses.size(), 2u);
    EXPECT_EQ(profile.symbolizer->symbol(counts.unbalanced[0].uses[0].path.at(0)).function, "make");
    EXPECT_EQ(counts.unbalanced[1].address, 0x6000u);
}

} // namespace
} // namespace vnt
