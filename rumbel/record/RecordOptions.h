#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vnt::rumbel {

/// What the command line of `rumbel record` asks for.
struct RecordOptions {
    std::vector<std::string> instruments{"stacksampler"}; ///< short names
    std::optional<pid_t> pid;
    std::string name; ///< process name or part of one
    bool allProcesses = false;
    std::vector<std::string> command; ///< program and arguments
    std::string output; ///< path, with or without ".vnt"; empty: made from the target and the time
    double durationSec = 0; ///< 0: until the target ends or an interrupt
    std::optional<uint32_t> intervalUs; ///< none: 1000, since the library's own default, 40, slows a target
    int32_t windowSec = 0; ///< not 0: only this much before each pause or the end is kept (samples, kernel events)
    uint32_t censusIntervalMs = 1000; ///< between two looks at all processes
    bool zombies = false; ///< Heap Recorder: keep freed blocks, and find out who uses them
    bool referenceCounts = false; ///< Heap Recorder: who retains and releases counted objects
    bool classNames = false; ///< Heap Recorder, Orphan Finder: the C++ classes of blocks
    bool contents = false; ///< Orphan Finder: also the first bytes of what is lost
    bool noBacktraces = false; ///< Orphan Finder: not where it was allocated
    std::string stacks = "user"; ///< user, kernel or both
    bool allStates = false; ///< Stack Sampler: threads that wait, too
    bool system = false; ///< ask the system's services, for other users' processes and the whole machine
    bool passStatus = false; ///< exit with the launched program's status
};

/// Records as asked and returns the exit status; an asynchronous end (target death, interrupt) ends the process
/// instead.
int runRecord(const RecordOptions& options);

} // namespace vnt::rumbel
