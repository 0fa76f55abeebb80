#pragma once

#include <sys/types.h>

#include <functional>
#include <string_view>

#include "collectors/inject/BorrowedThread.h"

namespace vnt {

struct InjectionOptions {
    /// File names of libraries whose code is avoided like the C library's; called with each.
    std::function<bool(std::string_view fileName)> isGuarded;
    std::chrono::milliseconds patience{8000}; ///< for finding a thread at a safe point
};

/// Runs `work` with a thread of the process `pid` that was met at a safe point; the others run on meanwhile. Blocks:
/// some milliseconds as a rule, `patience` and the calls' own deadlines at worst. `work` runs on a thread made for it.
/// Errors: what `work` answers; before it kNotFound: there is no such process; kDenied: the machine forbids tracing it;
/// kUnsupported: the process is of a kind that cannot be reached; kTimedOut: none of its threads came to a safe point.
/// Messages are whole sentences, but for the full stop, that begin with the process.
Status injectInto(pid_t pid, const InjectionOptions& options, const std::function<Status(BorrowedThread&)>& work);

/// Why nothing can be called inside the process now; ok when nothing speaks against it.
Status whyUnreachable(pid_t pid);

} // namespace vnt
