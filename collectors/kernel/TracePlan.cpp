#include "collectors/kernel/TracePlan.h"

#include <time.h>

#include <algorithm>
#include <bit>

#include "records/StackRecords.h"

namespace vnt {
namespace {

constexpr uint64_t kFormatLost = 1u << 4; // PERF_FORMAT_LOST, which older headers lack

perf_event_attr commonAttributes()
{
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.use_clockid = 1;
    attributes.clockid = CLOCK_MONOTONIC;
    attributes.watermark = 1;
    return attributes;
}

perf_event_attr ringAttributes(size_t wakeupBytes)
{
    perf_event_attr attributes = commonAttributes();
    attributes.type = PERF_TYPE_SOFTWARE;
    attributes.config = PERF_COUNT_SW_DUMMY;
    attributes.wakeup_watermark = static_cast<uint32_t>(wakeupBytes);
    return attributes;
}

} // namespace

Status checkOptions(const KernelTracerOptions& options)
{
    if (!options.allProcesses && options.pid <= 0)
        return Status(Code::kInvalid, "process id " + std::to_string(options.pid) + " has no events to record");
    if (options.maxFrames > stacks::kMaxDepth)
        return Status(Code::kInvalid, "more than " + std::to_string(stacks::kMaxDepth) + " frames are asked for");
    if (options.classes.empty())
        return Status(Code::kInvalid, "no kernel events are asked for");
    if (options.ringBytes != 0 && !std::has_single_bit(options.ringBytes))
        return Status(Code::kInvalid, "the ring's size is no power of two");
    return {};
}

perf_event_attr tracepointAttributes(const KernelTracerOptions& options, uint32_t id, uint32_t maxFrames,
                                     bool countsLost)
{
    perf_event_attr attributes = commonAttributes();
    attributes.type = PERF_TYPE_TRACEPOINT;
    attributes.config = id;
    attributes.sample_period = 1;
    attributes.sample_type = kTraceSampleType;
    attributes.disabled = 1;
    if (countsLost)
        attributes.read_format = kFormatLost;
    if (!wantsStacks(options))
        return attributes;
    attributes.sample_type |= PERF_SAMPLE_CALLCHAIN;
    attributes.sample_max_stack = static_cast<uint16_t>(maxFrames);
    attributes.exclude_callchain_user = !options.userStacks;
    attributes.exclude_callchain_kernel = !options.kernelStacks;
    return attributes;
}

perf_event_attr eventRingAttributes(size_t wakeupBytes)
{
    perf_event_attr attributes = ringAttributes(wakeupBytes);
    attributes.sample_type = kTraceSampleType;
    return attributes;
}

perf_event_attr processRingAttributes(size_t wakeupBytes, bool buildIds)
{
    perf_event_attr attributes = ringAttributes(wakeupBytes);
    attributes.sample_type = kProcessSampleType;
    attributes.sample_id_all = 1;
    attributes.mmap = 1; // with mmap2: executable mappings only
    attributes.mmap2 = 1;
    attributes.build_id = buildIds;
    attributes.comm = 1;
    attributes.comm_exec = 1;
    attributes.task = 1;
    return attributes;
}

size_t eventRingBytes(const KernelTracerOptions& options, size_t processors)
{
    if (options.ringBytes != 0)
        return options.ringBytes;
    constexpr size_t kAll = 256u << 20; // locked memory of all rings together
    return std::bit_floor(std::clamp<size_t>(kAll / std::max<size_t>(processors, 1), 512u << 10, 8u << 20));
}

} // namespace vnt
