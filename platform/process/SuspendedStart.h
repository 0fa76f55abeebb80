#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/base/Status.h"

namespace vnt {

/// The two spawn flags that a session's launch asks for (the values are the caller's; they are never handed to the C
/// library, which gives 0x80 another meaning).
inline constexpr int kSpawnSetProcessGroup = 0x02;
inline constexpr int kSpawnStartSuspended = 0x80;

struct SpawnRequest {
    std::string path; ///< executed as it is; no search
    std::vector<std::string> arguments; ///< element 0 included
    std::vector<std::string> environment; ///< "NAME=value"
    int flags = 0;
};

/// Starts a program; with kSpawnStartSuspended it is stopped before its first instruction and runs at SIGCONT. It
/// inherits the caller's descriptors that are not close-on-exec; its signal mask is empty. Runs wholly on the calling
/// thread, needs no wait status (a host's own waitpid(-1) may take it), and does not return before the child is in its
/// stop. Costs about 0.5 ms, whatever the caller's size. Errors: the exec's own errno, EINVAL for a zero byte in a
/// text; the child is then reaped. The caller reaps a started child.
Result<pid_t> spawnProcess(const SpawnRequest& request);

/// The executable of an application bundle directory (CFBundleExecutable of its Info.plist, below Contents/MacOS, MacOS
/// or the directory itself), absolute. kNotFound when there is none.
Result<std::string> bundleExecutablePath(const std::string& bundlePath);

} // namespace vnt
