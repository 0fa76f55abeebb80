#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>

namespace vnt {

/// One executable mapping that a collector saw appear (PERF_RECORD_MMAP2, perf_event_open(2)).
struct MappingEvent {
    uint64_t timeNs = 0; ///< CLOCK_MONOTONIC
    pid_t pid = 0;
    uint64_t start = 0;
    uint64_t sizeBytes = 0;
    uint64_t fileOffset = 0;
    std::string path;
    std::string buildId; ///< lower-case hexadecimal, or empty
};

/// Told by a collector what it sees of processes, so that signatures stay true after later loads and after the
/// end of a process. Called on the collector's reader thread; must not block.
class ProcessObserver {
public:
    virtual ~ProcessObserver() = default;
    virtual void onMapping(const MappingEvent& event) = 0;
    /// The process began a new address space (exec): mappings seen before no longer hold from `timeNs` on.
    virtual void onExec(uint64_t timeNs, pid_t pid, const std::string& name) = 0;
    virtual void onFork(uint64_t timeNs, pid_t parent, pid_t child) = 0;
    virtual void onExit(uint64_t timeNs, pid_t pid) = 0;
    /// Kernel addresses that stand in stacks recorded since the last call; their names are wanted at the end.
    virtual void onKernelAddresses(std::span<const uint64_t> addresses) = 0;
};

} // namespace vnt
