#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt::procfs {

/// One executable mapping of /proc/PID/maps (proc(5)).
struct CodeMapping {
    uint64_t start = 0;
    uint64_t sizeBytes = 0;
    uint64_t fileOffset = 0;
    std::string path; ///< as the kernel shows it
};
/// Ascending. Errors: kNotFound when the process has ended, kDenied for another user's.
Result<std::vector<CodeMapping>> codeMappings(pid_t pid);

/// The file that is mapped at `start`: the very one if that is allowed, also when it was removed; else what has this
/// name in the process's own root. Regular files only: opening anything else might block or do something.
Result<UniqueFd> openMapped(pid_t pid, uint64_t start, uint64_t sizeBytes, const std::string& path);
/// Where the beginning of the file shown as `path` is mapped, executable or not.
Result<uint64_t> firstMappingOf(pid_t pid, const std::string& path);

} // namespace vnt::procfs
