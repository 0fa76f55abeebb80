#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "platform/base/Status.h"

namespace vnt {

struct KernelTracerOptions {
    bool allProcesses = false;
    pid_t pid = 0; ///< one process with all its threads and the processes it starts
    std::vector<uint32_t> classes; ///< filter codes, see EventTable.h
    bool userStacks = true;
    bool kernelStacks = true;
    uint32_t maxFrames = 127; ///< PERF_MAX_STACK_DEPTH, the kernel's default sysctl
    uint64_t windowNs = 0; ///< not 0: keep only this much, send it at pause
    /// How events leave the kernel. kBest: by a BPF program, and where that is refused by perf events.
    enum class Path { kBest, kProgram, kPerf } path = Path::kBest;
    int traceFiles = -1; ///< of openTraceFiles(), where that was done earlier; the caller's
    size_t ringBytes = 0; ///< of a processor's ring, a power of two of pages; 0: as the rate may need
};

/// Records kernel events of one process or of all. Created, paused, resumed and stopped by one control thread; owns its
/// reader thread. Records go to the sink as batches of records/TraceRecords.h.
class KernelTracer {
public:
    /// Recording runs when this returns. Errors name what is missing and the command that would allow it.
    static Result<std::unique_ptr<KernelTracer>> start(const KernelTracerOptions& options, RecordSink& sink,
                                                       ProcessObserver* observer);
    /// Stops without sending what is left, and gives every kernel object back: the kernel waits for all processors for
    /// each tracepoint, together one to two seconds.
    virtual ~KernelTracer() = default;

    virtual Status pause() = 0; ///< every event that happened before it was called has gone to the sink
    virtual Status unpause() = 0;
    virtual Status stop() = 0; ///< as pause(), for good, and the final counts are sent
};

} // namespace vnt
