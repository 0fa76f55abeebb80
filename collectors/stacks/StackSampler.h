#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "platform/base/Status.h"

namespace vnt {

/// How user stacks are walked.
enum class Unwinding {
    kAuto, ///< by call-frame information, on as little of the stack as does
    kFramePointers, ///< by the kernel alone: without the callers of code that keeps no frame pointer
};

struct StackSamplerOptions {
    bool allProcesses = false;
    /// One process with all its threads and descendants; 0 with allProcesses false: the kernel on every processor.
    pid_t pid = 0;
    uint64_t intervalNs = 1'000'000;
    bool userStacks = true;
    bool kernelStacks = false;
    Unwinding unwinding = Unwinding::kAuto;
    bool allThreadStates = false;
    uint32_t maxFrames = 127; ///< PERF_MAX_STACK_DEPTH, the kernel's default sysctl
    uint64_t windowNs = 0; ///< not 0: keep only this much, send it at pause
    int traceFiles =
        -1; ///< of openTraceFiles(), for a process that has no privilege left to find them; outlives the call
};

/// Samples stacks with perf events. Created, paused, resumed and stopped by one control thread; owns its reader
/// thread. Records go to the sink as batches of records/StackRecords.h.
class StackSampler {
public:
    /// Sampling runs when this returns (first samples may already be in the rings). Errors name what is missing
    /// and the command that would allow it (for example perf_event_paranoid).
    static Result<std::unique_ptr<StackSampler>> start(const StackSamplerOptions& options, RecordSink& sink,
                                                       ProcessObserver* observer);
    virtual ~StackSampler() = default; ///< stops without sending what is left

    virtual Status pause() = 0; ///< every sample taken before it returns has gone to the sink
    virtual Status unpause() = 0;
    virtual Status stop() = 0; ///< as pause(), then all kernel objects are closed and the final counts are sent
};

} // namespace vnt
