#include "collectors/stacks/SamplerPlan.h"

#include <gtest/gtest.h>

#include "records/StackRecords.h"

namespace vnt {
namespace {

/// The bits that decide what is sampled, as words.
std::string described(const perf_event_attr& a)
{
    std::string text = std::to_string(a.sample_period) + "/" + std::to_string(a.sample_max_stack);
    const std::pair<bool, const char*> words[] = {
        {a.disabled, "disabled"},
        {a.inherit, "inherit"},
        {a.exclude_user, "-user"},
        {a.exclude_kernel, "-kernel"},
        {a.exclude_idle, "-idle"},
        {a.context_switch, "switches"},
        {a.exclude_callchain_user, "-userstack"},
        {a.exclude_callchain_kernel, "-kernelstack"},
        {a.task && a.comm && a.comm_exec, "tasks"},
        {a.mmap && a.mmap2, "maps"},
        {a.build_id, "ids"},
    };
    for (const auto& [set, word] : words)
        text += set ? std::string(" ") + word : "";
    const bool dumps = (a.sample_type & kDumpType) == kDumpType && a.sample_regs_user == kDumpedRegisters;
    return dumps ? text + " dump" + std::to_string(a.sample_stack_user) : text;
}

TEST(SamplerPlan, OptionsBecomeAttributes)
{
    const KernelOffer root;
    const KernelOffer user{Placement::kThreads, /*kernelMode=*/false, true, 127, 512};
    const KernelOffer oldKernel{Placement::kThreads, true, false, 64, 0};
    struct Row {
        const char* what;
        StackSamplerOptions options;
        KernelOffer offer;
        const char* sampling;
        const char* ring;
    };
    StackSamplerOptions process;
    process.pid = 7;
    StackSamplerOptions both = process;
    both.kernelStacks = true;
    both.intervalNs = 40'000;
    StackSamplerOptions kernelStacks = process;
    kernelStacks.userStacks = false;
    kernelStacks.kernelStacks = true;
    StackSamplerOptions kernel;
    kernel.pid = 0;
    StackSamplerOptions everyone;
    everyone.allProcesses = true;
    everyone.maxFrames = 10;
    StackSamplerOptions waiting = both;
    waiting.allThreadStates = true;
    const Row rows[] = {
        {"user stacks of a process, also while the kernel works for it", process, root,
         "1000000/127 disabled -idle -kernelstack", "0/0 tasks maps ids"},
        {"both stacks", both, root, "40000/127 disabled -idle", "0/0 tasks maps ids"},
        {"kernel stacks; time in user mode counts too", kernelStacks, root, "1000000/127 disabled -idle -userstack",
         "0/0 tasks maps ids"},
        {"the kernel", kernel, root, "1000000/127 disabled -user -idle -userstack", "0/0 tasks"},
        {"all processes", everyone, root, "1000000/10 disabled -idle -kernelstack", "0/0 tasks maps ids"},
        {"threads that wait", waiting, root, "40000/127 disabled -idle switches", "0/0 tasks maps ids"},
        {"without privilege", both, user,
         "40000/127 disabled inherit -kernel -idle -kernelstack tasks maps ids dump512", "0/0 -kernel"},
        {"an old kernel", process, oldKernel, "1000000/64 disabled inherit -idle -kernelstack tasks maps", "0/0"},
    };
    for (const Row& row : rows) {
        const perf_event_attr sampling = samplingAttributes(row.options, row.offer);
        const perf_event_attr ring = ringAttributes(row.options, row.offer, 1u << 20);
        EXPECT_EQ(described(sampling), row.sampling) << row.what;
        EXPECT_EQ(described(ring), row.ring) << row.what;
        EXPECT_EQ(ring.wakeup_watermark, 1u << 18) << row.what;
        // One ring holds both: the trailer must be the same, and so must the clock.
        EXPECT_EQ(sampling.sample_type & ~uint64_t{PERF_SAMPLE_CALLCHAIN} & ~kDumpType, ring.sample_type) << row.what;
        EXPECT_TRUE(sampling.use_clockid && ring.use_clockid && sampling.clockid == ring.clockid) << row.what;
    }
}

TEST(SamplerPlan, RefusesOptionsThatCannotBeHonoured)
{
    const auto code = [](auto change) {
        StackSamplerOptions options;
        options.pid = 7;
        change(options);
        return checkOptions(options).code();
    };
    EXPECT_EQ(code([](auto&) {}), Code::kOk);
    EXPECT_EQ(code([](auto& o) { o.pid = 0; }), Code::kOk);
    EXPECT_EQ(code([](auto& o) { o.pid = -1; }), Code::kInvalid);
    EXPECT_EQ(code([](auto& o) { o.intervalNs = 0; }), Code::kInvalid);
    EXPECT_EQ(code([](auto& o) { o.intervalNs = 9'999; }), Code::kInvalid);
    EXPECT_EQ(code([](auto& o) { o.intervalNs = UINT64_MAX; }), Code::kInvalid);
    EXPECT_EQ(code([](auto& o) { o.userStacks = false; }), Code::kInvalid);
    EXPECT_EQ(code([](auto& o) { o.maxFrames = stacks::kMaxDepth + 1; }), Code::kInvalid);
}

TEST(SamplerPlan, RingsHoldAFifthOfASecond)
{
    for (const uint64_t intervalNs : {10'000u, 40'000u, 100'000u, 1'000'000u, 60'000'000u}) {
        StackSamplerOptions options;
        options.pid = 7;
        options.intervalNs = intervalNs;
        options.maxFrames = 40;
        for (const uint32_t dump : {0u, 512u, 8192u, 32768u}) {
            const size_t bytes = ringBytes(options, dump);
            EXPECT_EQ(bytes & (bytes - 1), 0u) << intervalNs;
            EXPECT_GE(bytes, std::min<uint64_t>(200'000'000 / intervalNs * (48 + dump + 40 * 8), 4u << 20))
                << intervalNs;
            EXPECT_LE(bytes, 4u << 20) << intervalNs;
        }
        KernelOffer offer;
        EXPECT_LE(firstRingBytes(options, offer), ringBytes(options, 8192)) << intervalNs;
        offer.placement = Placement::kThreads;
        EXPECT_EQ(firstRingBytes(options, offer), ringBytes(options, 8192)) << intervalNs;
    }
}

} // namespace
} // namespace vnt
