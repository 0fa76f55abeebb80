#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "collectors/common/codeMappings.h"
#include "platform/base/Status.h"

/// What /proc says of processes (proc(5)). A process may end at any moment: every function answers kNotFound then.
namespace vnt::procfs {

struct ProcessStat {
    std::string comm; ///< at most 15 bytes
    char state = '?';
    pid_t parent = 0;
    uint32_t flags = 0; ///< PF_* of the kernel
    uint64_t startTicks = 0; ///< since boot; with the pid it names one process
};
Result<ProcessStat> processStat(pid_t pid);
/// As processStat() for one thread.
Result<ProcessStat> threadStat(pid_t pid, pid_t tid);

/// Alive and not a zombie; true for 0, the kernel.
bool isRunning(pid_t pid);
/// Every process that runs a program (no kernel threads), ascending.
Result<std::vector<pid_t>> runningPids();
Result<std::vector<pid_t>> threadsOf(pid_t pid);
/// The executable's name: the kernel's short name, completed from the command line or the executable when it was cut.
Result<std::string> executableName(pid_t pid);

/// From the ELF header that the process itself has mapped of `path`; empty when it cannot be read.
std::string buildIdInMemory(pid_t pid, const std::string& path);
/// Text of the perf-PID.map that the process's just-in-time compiler wrote below /tmp of its own root, at most 16 MiB;
/// empty when there is none that belongs to the process's user.
std::string perfMapOf(pid_t pid);

/// As buildIdOfFile() for an open file.
std::string buildIdOf(int file);
/// Build id of an ELF file as lower-case hexadecimal; empty when it has none or cannot be read.
std::string buildIdOfFile(const std::string& path);
/// Build id in an ELF note section or segment's bytes.
std::string buildIdInNotes(const std::string& notes);

} // namespace vnt::procfs
