#pragma once

#include <linux/taskstats.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"
#include "records/CensusRecords.h"

namespace vnt {

/// What each process used in its whole life, as the kernel tells it when its threads end (<linux/taskstats.h>): also of
/// those that nothing of is left in /proc by the time anyone looks. About 2 us for each thread that ends on the
/// machine. One thread.
class ExitStatistics {
public:
    struct Life {
        census::Usage usage{}; ///< memory and counts of the moment are 0
        std::string name; ///< of its first thread at the end; empty when that was not told
    };

    /// Needs the capability CAP_NET_ADMIN; kUnsupported where the kernel does not tell enough.
    static Result<ExitStatistics> open();

    /// The threads of `pid` that ended so far, summed and then forgotten. Whole once the kernel has told the process's
    /// end. None when nothing was told, or was lost.
    std::optional<Life> take(pid_t pid);

private:
    explicit ExitStatistics(UniqueFd socket) : _socket(std::move(socket)) { }
    void drain();
    void add(const taskstats& thread);

    UniqueFd _socket;
    std::unordered_map<pid_t, Life> _lives; ///< by process, of those that nobody took
};

} // namespace vnt
