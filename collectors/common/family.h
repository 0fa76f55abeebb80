#pragma once

#include <sys/types.h>

#include <vector>

namespace vnt {

/// `pid` and the processes that descend from it, as /proc shows them now; parents before their children. Empty: there
/// is no such process. One that is begun or reparented meanwhile may be missing: whoever needs all asks again.
std::vector<pid_t> processesOfFamily(pid_t pid);

/// Threads of one process, from /proc; empty when it has ended.
std::vector<pid_t> threadsOfProcess(pid_t pid);

} // namespace vnt
