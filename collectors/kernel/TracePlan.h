#pragma once

#include <linux/perf_event.h>

#include "collectors/kernel/KernelTracer.h"

namespace vnt {

/// Sample layout of tracepoint events; call chains only where stacks are asked for.
inline constexpr uint64_t kTraceSampleType =
    PERF_SAMPLE_IDENTIFIER | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | PERF_SAMPLE_RAW;
/// What every process record ends with (sample_id_all): pid, tid, time.
inline constexpr uint64_t kProcessSampleType = PERF_SAMPLE_TID | PERF_SAMPLE_TIME;
inline constexpr size_t kProcessTrailerBytes = 16;

/// kInvalid for options that cannot be honoured.
Status checkOptions(const KernelTracerOptions& options);
inline bool wantsStacks(const KernelTracerOptions& options) { return options.userStacks || options.kernelStacks; }

/// One tracepoint on one processor, disabled: every occurrence is a sample. `countsLost`: a read of the event tells
/// what found no room in the ring, too (Linux 6.0); a ring's own records tell it only when there is room again.
perf_event_attr tracepointAttributes(const KernelTracerOptions& options, uint32_t id, uint32_t maxFrames,
                                     bool countsLost);
/// The event that owns a processor's ring of tracepoint samples. `wakeupBytes`: the reader is woken at that much.
perf_event_attr eventRingAttributes(size_t wakeupBytes);
/// The event that owns a processor's ring of process records. Enabled.
perf_event_attr processRingAttributes(size_t wakeupBytes, bool buildIds);
/// For 100 ms of 800,000 events a second on one processor, less where there are many processors: 8 MiB to 512 KiB.
size_t eventRingBytes(const KernelTracerOptions& options, size_t processors);
inline constexpr size_t kProcessRingBytes = 256u << 10; ///< some 2,000 records: a storm of 30 ms

} // namespace vnt
