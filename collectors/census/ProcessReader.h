#pragma once

#include <sys/types.h>

#include <vector>

#include "platform/base/Status.h"
#include "records/CensusRecords.h"

namespace vnt {

/// Reads what processes use from /proc (proc(5)), as cheaply as their stillness allows: a process whose processor clock
/// stands has changed nothing of its own, and one look at that clock is a tenth of reading a file. One thread.
class ProcessReader {
public:
    ProcessReader();

    /// Every process of the machine, kernel threads included, ascending.
    Result<std::vector<pid_t>> processes();
    /// Processor time so far, also of a process that has ended and waits for its parent; -1 when it is gone.
    /// About 0.3 us.
    [[nodiscard]] int64_t cpuNs(pid_t pid) const;

    struct Looked {
        census::ProcessRecord process;
        census::Usage usage{};
        bool limited = false; ///< descriptors and I/O could not be read: it is another user's
    };
    /// Everything. kNotFound when it is gone. About 30 us.
    Result<Looked> look(pid_t pid);
    /// Name and executable only, after an exec.
    Status readName(pid_t pid, census::ProcessRecord& process);

    /// Processor time of the machine and memory available.
    Result<census::SweepRecord> machine();
    [[nodiscard]] uint64_t memoryKiB() const { return _memoryKiB; }

private:
    /// The text of /proc/`pid`/`file`, valid until the next call; empty when it cannot be read.
    std::string_view text(pid_t pid, const char* file);
    std::string_view text(const char* path);
    Status readStat(pid_t pid, Looked& looked);
    void readStatus(pid_t pid, Looked& looked);
    void readLimited(pid_t pid, Looked& looked);
    void readExecutable(pid_t pid, census::ProcessRecord& process);
    [[nodiscard]] int64_t descriptors(pid_t pid);

    std::vector<char> _buffer;
    bool _descriptorsByStat; ///< st_size of /proc/PID/fd is their number (Linux 6.2)
    uint64_t _ticksPerSecond;
    uint64_t _pageKiB;
    uint64_t _memoryKiB = 0;
    int64_t _bootToMonotonicNs; ///< CLOCK_MONOTONIC less CLOCK_BOOTTIME: time spent suspended
};

} // namespace vnt
