#include "bundle/StackProfile.h"

#include <gtest/gtest.h>

#include <map>

#include "bundle/Bundle.h"
#include "bundle/StackProfileBuilder.h"
#include "bundle/TestBundle.h"

namespace vnt {
namespace {

using stacks::LostCause;
using stacks::SessionRecord;
using stacks::StackRecordWriter;
using test::kKernelStart;
using test::kModuleStart;
using test::kTextAddress;

constexpr uint64_t kStart = 100 * test::kSecondNs;
// Functions of 0x100 bytes each.
constexpr uint64_t kMain = kModuleStart + 0x10;
constexpr uint64_t kWork = kModuleStart + 0x110;
constexpr uint64_t kLeaf = kModuleStart + 0x210;

/// name -> {self, total}
std::map<std::string, std::pair<uint64_t, uint64_t>> functionsOf(const StackProfile& profile,
                                                                 const Symbolizer& symbolizer)
{
    std::map<std::string, std::pair<uint64_t, uint64_t>> result;
    for (const ProfileFunction& function : profile.functions())
        result[symbolizer.symbol(function.symbol).function] = {function.self.samples, function.total.samples};
    return result;
}

struct StackProfileTest : testing::Test {
    Remarks remarks;
    Ref<MutableDictionary> signatures;
    std::unique_ptr<Symbolizer> symbolizer;

    void SetUp() override
    {
        const std::string path = test::freshDirectory("profile") + "/program";
        test::writeText(path,
                        test::testElf<test::Elf64>({{"main", kTextAddress, 0x100},
                                                    {"work", kTextAddress + 0x100, 0x100},
                                                    {"leaf", kTextAddress + 0x200, 0x100}},
                                                   "p"));
        const auto process = test::processSignature(
            42, "program", {test::image(kModuleStart, test::kTextSize, test::kTextOffset, path, "70")});
        signatures = test::signaturesOf({{42, process}, {0, test::kernelSignature()}});
        symbolizer = std::make_unique<Symbolizer>(signatures.get(), remarks);
    }
    static uint32_t addStack(StackRecordWriter& writer, const std::vector<uint64_t>& outerToInner, uint32_t node = 0)
    {
        uint64_t caller = 0;
        for (const uint64_t address : outerToInner) {
            node = writer.addNode(node, caller, address);
            caller = address;
        }
        return node;
    }
    static void send(StackRecordWriter& writer, StackProfileBuilder& builder)
    {
        builder.add(writer.message());
        writer.messageSent();
    }
};

TEST_F(StackProfileTest, CountsSelfAndTotalOnceUnderRecursion)
{
    StackRecordWriter writer(SessionRecord{1'000'000, SessionRecord::kUserStacks, 0});
    writer.addThread(0, {42, 42, 0, "main-thread"});
    const uint32_t leaf = addStack(writer, {kMain, kWork, kMain + 1, kWork + 1, kLeaf});
    const uint32_t work = addStack(writer, {kMain, kWork});
    writer.addSample(kStart, 0, leaf);
    writer.addSample(kStart + 1, 0, leaf);
    writer.addSample(kStart + 2, 0, work);
    writer.addSample(kStart + 3, 0, 0);
    StackProfileBuilder builder(*symbolizer, remarks);
    send(writer, builder);
    const StackProfile profile = builder.take();
    const std::map<std::string, std::pair<uint64_t, uint64_t>> expected = {
        {"leaf", {2, 2}}, {"work", {1, 3}}, {"main", {0, 3}}, {"[no stack]", {1, 1}}};
    EXPECT_EQ(functionsOf(profile, *symbolizer), expected);
    EXPECT_EQ(symbolizer->symbol(profile.functions().front().symbol).function, "leaf");
    EXPECT_EQ(profile.nodeTotals()[0].samples, 4u);
    EXPECT_EQ(profile.totals().all.samples, 4u);
    EXPECT_EQ(profile.totals().session.intervalNs, 1'000'000u);
    EXPECT_EQ(profile.totals().lastTimeNs - profile.totals().firstTimeNs, 3u);
}

TEST_F(StackProfileTest, GenerationsAndThreadsCountTogether)
{
    StackRecordWriter writer(SessionRecord{1'000'000, 3, 0});
    StackProfileBuilder builder(*symbolizer, remarks);
    for (int generation = 0; generation < 3; ++generation) {
        writer.addThread(0, {42, 42, 0, "a"});
        writer.addThread(1, {42, 43, 0, "b" + std::to_string(generation)});
        // Another order every time: the same number means another stack.
        uint32_t first = addStack(writer, {kMain, generation % 2 == 0 ? kWork : kLeaf});
        uint32_t second = addStack(writer, {kMain, generation % 2 == 0 ? kLeaf : kWork});
        if (generation % 2 != 0)
            std::swap(first, second);
        writer.addSample(kStart, 0, first);
        writer.addSample(kStart, 1, first);
        writer.addSample(kStart, 1, second);
        send(writer, builder);
        writer.beginGeneration();
    }
    const StackProfile profile = builder.take();
    const std::map<std::string, std::pair<uint64_t, uint64_t>> expected = {
        {"work", {6, 6}}, {"leaf", {3, 3}}, {"main", {0, 9}}};
    EXPECT_EQ(functionsOf(profile, *symbolizer), expected);
    ASSERT_EQ(profile.threads().size(), 2u);
    EXPECT_EQ(profile.threads()[0].samples, 3u);
    EXPECT_EQ(profile.threads()[1].samples, 6u);
    EXPECT_EQ(profile.threads()[1].name, "b2");
    EXPECT_EQ(profile.counts().size(), 3u); // two stacks, one of them in both threads
    EXPECT_EQ(profile.nodes().size(), 4u);
}

TEST_F(StackProfileTest, UserCodeThatEntersTheKernelIsWhereItWasInterrupted)
{
    StackRecordWriter writer(SessionRecord{1'000'000, 3, 0});
    writer.addThread(0, {42, 42, 0, "a"});
    // The first byte of `work` was interrupted; as a return address it would belong to `main`.
    const uint32_t interrupted =
        addStack(writer, {kMain, kModuleStart + 0x100, kKernelStart + 0x10, kKernelStart + 0x1010});
    const uint32_t called = addStack(writer, {kMain, kModuleStart + 0x100, kLeaf});
    writer.addSample(kStart, 0, interrupted);
    writer.addSample(kStart, 0, called);
    StackProfileBuilder builder(*symbolizer, remarks);
    send(writer, builder);
    const std::map<std::string, std::pair<uint64_t, uint64_t>> expected = {
        {"leaf", {1, 1}}, {"ext4_read", {1, 1}}, {"do_syscall_64", {0, 1}}, {"work", {0, 1}}, {"main", {0, 2}}};
    EXPECT_EQ(functionsOf(builder.take(), *symbolizer), expected);
}

TEST_F(StackProfileTest, NothingIsLostSilently)
{
    StackRecordWriter writer(SessionRecord{1'000'000, 3, 0});
    StackProfileBuilder builder(*symbolizer, remarks);
    writer.addThread(0, {42, 42, 0, "a"});
    writer.addSample(kStart, 0, addStack(writer, {kLeaf}, writer.addCutNode()));
    writer.addBlocked(kStart + 5, 0, addStack(writer, {kMain, kWork}), 7000);
    writer.addLost(kStart, LostCause::kRingFull, 5);
    writer.addLost(kStart, LostCause::kThrottled, 11);
    writer.addLost(kStart, LostCause::kRingFull, 8);
    writer.addCost(kStart, 123456);
    send(writer, builder);
    const uint32_t stack = addStack(writer, {kMain});
    (void)writer.message();
    writer.messageSent(); // and never arrives
    writer.addSample(kStart, 0, stack);
    send(writer, builder);
    builder.add(std::as_bytes(std::span("no message")));
    const StackProfile profile = builder.take();
    const ProfileTotals& totals = profile.totals();
    EXPECT_EQ(totals.all.samples, 1u);
    EXPECT_EQ(totals.all.blockedNs, 7000u);
    EXPECT_EQ(totals.blockedRecords, 1u);
    EXPECT_EQ(totals.truncated, 1u);
    EXPECT_EQ(totals.orphans, 1u);
    EXPECT_EQ(totals.lost(), 9u);
    EXPECT_EQ(totals.throttled(), 11u);
    EXPECT_EQ(totals.missingMessages, 1u);
    EXPECT_EQ(totals.damagedMessages, 1u);
    EXPECT_EQ(totals.recorderCpuNs, 123456u);
    EXPECT_EQ(remarks.texts(), std::vector<std::string>{"stack records: no message header"});
    const std::map<std::string, std::pair<uint64_t, uint64_t>> expected = {
        {"leaf", {1, 1}}, {"[truncated]", {0, 1}}, {"main", {0, 0}}, {"work", {0, 0}}};
    EXPECT_EQ(functionsOf(profile, *symbolizer), expected);
}

} // namespace
} // namespace vnt
