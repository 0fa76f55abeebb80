#include "collectors/stacks/SamplerPlan.h"

#include <time.h>

#include <algorithm>
#include <bit>

#include "collectors/stacks/DumpSize.h"
#include "records/StackRecords.h"

namespace vnt {
namespace {

constexpr uint64_t kShortestIntervalNs = 10'000; // perf_swevent_start_hrtimer() takes less as this much
constexpr uint64_t kLongestIntervalNs = 60'000'000'000;

perf_event_attr commonAttributes()
{
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_SOFTWARE;
    attributes.sample_type = kSampleType;
    attributes.sample_id_all = 1;
    attributes.use_clockid = 1;
    attributes.clockid = CLOCK_MONOTONIC;
    attributes.watermark = 1;
    return attributes;
}

void askForProcessRecords(perf_event_attr& attributes, const KernelOffer& offer)
{
    attributes.mmap = 1; // with mmap2: executable mappings only
    attributes.mmap2 = 1;
    attributes.build_id = offer.buildIds;
    attributes.comm = 1;
    attributes.comm_exec = 1;
    attributes.task = 1;
}

} // namespace

bool samplesKernelOnly(const StackSamplerOptions& options) { return !options.allProcesses && options.pid == 0; }

Status checkOptions(const StackSamplerOptions& options)
{
    if (!options.allProcesses && options.pid < 0)
        return Status(Code::kInvalid, "process id " + std::to_string(options.pid) + " is not valid");
    if (options.intervalNs < kShortestIntervalNs || options.intervalNs > kLongestIntervalNs)
        return Status(Code::kInvalid, "the sampling interval must be from 10 microseconds to one minute");
    if (!options.userStacks && !options.kernelStacks)
        return Status(Code::kInvalid, "neither user nor kernel stacks are asked for");
    if (options.maxFrames > stacks::kMaxDepth)
        return Status(Code::kInvalid, "more than " + std::to_string(stacks::kMaxDepth) + " frames are asked for");
    return {};
}

uint32_t framesAsked(const StackSamplerOptions& options, const KernelOffer& offer)
{
    return std::max(1u, std::min(options.maxFrames, offer.maxFrames));
}

namespace {

/// What decides on stacks and inheritance.
perf_event_attr stackAttributes(const StackSamplerOptions& options, const KernelOffer& offer)
{
    const bool kernelOnly = samplesKernelOnly(options);
    perf_event_attr attributes = commonAttributes();
    attributes.disabled = 1;
    attributes.exclude_callchain_user = kernelOnly || !options.userStacks;
    attributes.exclude_callchain_kernel = !kernelOnly && (!options.kernelStacks || !offer.kernelMode);
    attributes.sample_max_stack = static_cast<uint16_t>(framesAsked(options, offer));
    if (wantsDumps(options) && offer.dumpBytes != 0) {
        attributes.sample_type |= kDumpType;
        attributes.sample_regs_user = kDumpedRegisters;
        attributes.sample_stack_user = offer.dumpBytes;
    }
    attributes.inherit = offer.placement == Placement::kThreads;
    return attributes;
}

} // namespace

bool wantsDumps(const StackSamplerOptions& options)
{
    return options.userStacks && !samplesKernelOnly(options) && options.unwinding == Unwinding::kAuto;
}

bool recordsWaiting(const StackSamplerOptions& options)
{
    return options.allThreadStates && !samplesKernelOnly(options);
}

perf_event_attr switchAttributes(const StackSamplerOptions& options, const KernelOffer& offer)
{
    perf_event_attr attributes = stackAttributes(options, offer);
    attributes.config = PERF_COUNT_SW_CONTEXT_SWITCHES;
    attributes.sample_period = 1;
    return attributes;
}

perf_event_attr samplingAttributes(const StackSamplerOptions& options, const KernelOffer& offer)
{
    perf_event_attr attributes = stackAttributes(options, offer);
    attributes.config = PERF_COUNT_SW_CPU_CLOCK;
    attributes.sample_period = options.intervalNs;
    attributes.context_switch = recordsWaiting(options);
    attributes.exclude_idle = 1;
    attributes.exclude_user = samplesKernelOnly(options);
    attributes.exclude_kernel = !offer.kernelMode;
    attributes.exclude_hv = !offer.kernelMode;
    if (offer.placement == Placement::kThreads)
        askForProcessRecords(attributes, offer);
    return attributes;
}

perf_event_attr ringAttributes(const StackSamplerOptions& options, const KernelOffer& offer, size_t ringBytes)
{
    perf_event_attr attributes = commonAttributes();
    attributes.config = PERF_COUNT_SW_DUMMY;
    attributes.sample_type = kSampleType & ~uint64_t{PERF_SAMPLE_CALLCHAIN};
    attributes.exclude_kernel = !offer.kernelMode;
    attributes.exclude_hv = !offer.kernelMode;
    attributes.wakeup_watermark = static_cast<uint32_t>(ringBytes / 4);
    if (offer.placement == Placement::kProcessors) {
        askForProcessRecords(attributes, offer);
        if (samplesKernelOnly(options))
            attributes.mmap = attributes.mmap2 = attributes.build_id = 0;
    }
    return attributes;
}

namespace {

size_t ringFor(const StackSamplerOptions& options, uint64_t durationNs, uint32_t dumpBytes)
{
    constexpr uint64_t kSmallest = 256u << 10;
    constexpr uint64_t kLargest = 4u << 20;
    const uint64_t samples = durationNs / options.intervalNs + 1;
    const uint64_t bytes = samples * (48 + uint64_t{dumpBytes} + 8 * uint64_t{std::min(options.maxFrames, 64u)});
    return static_cast<size_t>(std::bit_ceil(std::clamp(bytes, kSmallest, kLargest)));
}

} // namespace

size_t ringBytes(const StackSamplerOptions& options, uint32_t dumpBytes)
{
    // As if stacks were large when they are not: a busy machine may keep the reader waiting for longer.
    return dumpBytes == 0 ? ringFor(options, 200'000'000, 0)
                          : ringFor(options, 400'000'000, std::max(dumpBytes, DumpSize::kUsual));
}

size_t firstRingBytes(const StackSamplerOptions& options, const KernelOffer& offer)
{
    if (!wantsDumps(options))
        return ringBytes(options, 0);
    if (offer.placement == Placement::kThreads) // the limit of an ordinary user's memory may allow no others beside
        return ringBytes(options, DumpSize::kUsual);
    return ringFor(options, 100'000'000, DumpSize::kUsual);
}

} // namespace vnt
