#pragma once

#include <string>
#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// The root of the kernel's tracing files, to be opened while a process still has the privilege that mounting them
/// takes where they are not mounted; invalid when it is refused. Hand it to TraceFs::open() later.
UniqueFd openTraceFiles();

/// Reads the kernel's tracing files (tracefs), which say what events there are and how their records are laid out.
/// Where they are not mounted, they are opened through a mount that no other process sees and that ends with this
/// object. Nothing is ever written. One thread at a time.
class TraceFs {
public:
    /// `root`: of openTraceFiles(), or -1 to open them now; stays the caller's. Errors say what would allow it: kDenied
    /// for an ordinary user, kUnsupported for a kernel without events.
    static Result<TraceFs> open(int root = -1);

    /// A file below the root, such as "events/sched/sched_switch/format". kNotFound: the kernel has no such event.
    Result<std::string> read(const std::string& path) const;

private:
    explicit TraceFs(UniqueFd root) : _root(std::move(root)) { }
    UniqueFd _root;
};

} // namespace vnt
