#pragma once

#include <sys/types.h>

#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// Lets through what one process and its descendants do, in the kernel: a table of process ids that three small
/// programs share (bpf(2)). One decides on events, two keep the table true as processes begin and end. All end with
/// this object; on a thread of its own, since the kernel takes some 50 ms to take each from its tracepoint.
class FamilyFilter {
public:
    FamilyFilter(FamilyFilter&&) = default;
    FamilyFilter& operator=(FamilyFilter&&) = default;
    ~FamilyFilter();

    /// `traceFiles`: of openTraceFiles(), or -1. Errors: kUnsupported in a process id namespace of its own, where the
    /// kernel's numbers are not ours, and where process events cannot be followed; kDenied without privilege.
    static Result<FamilyFilter> create(pid_t pid, int traceFiles);

    /// Lets through what descends from `pid` now, and says who that is. create() has done so: once more finds what
    /// began between its look and the entry of its parent.
    Result<std::vector<pid_t>> addFamily(pid_t pid);

    /// For perf::setProgram(): a BPF_PROG_TYPE_PERF_EVENT program. Costs some 20 ns an event.
    [[nodiscard]] int program() const { return _program.get(); }

private:
    FamilyFilter() = default;
    Status follow(int traceFiles);

    UniqueFd _processes; ///< the table
    UniqueFd _program;
    std::vector<UniqueFd> _attached; ///< programs and the events they run at
};

} // namespace vnt
