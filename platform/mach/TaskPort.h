#pragma once

#include <sys/types.h>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// What a task port is made of (<Vantora/Tasks.h> says what it is for). The right is one end of a socket pair whose
/// other end is closed; in its queue lies one packet with the descriptors of TaskFiles. Whoever holds the right looks
/// at that packet without taking it, so the right can be copied and passed on like any other, and nobody serves it.
namespace vnt {

struct TaskFiles {
    pid_t pid = 0; ///< when it was opened, in the namespace of who opened it
    UniqueFd process; ///< pidfd
    UniqueFd memory; ///< /proc/PID/mem, read only
    UniqueFd mappings; ///< /proc/PID/maps
    UniqueFd threads; ///< /proc/PID/task, a directory
};

/// Opens a process as far as the caller may (PTRACE_MODE_ATTACH, ptrace(2)). Errors: kNotFound (no such process, or it
/// ended meanwhile), kDenied, kSystem.
Result<TaskFiles> openTask(pid_t pid);

/// The right that holds `files`; these may go afterwards.
Result<UniqueFd> makeTaskRight(const TaskFiles& files);

/// What `right` holds, as descriptors of this process. kDenied when neither root nor the own user made it, kInvalid
/// when it is no task port.
Result<TaskFiles> readTaskRight(int right);

} // namespace vnt
