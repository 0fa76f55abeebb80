#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>

#include "platform/base/UniqueFd.h"

namespace vnt {

/// What was granted and refused, in the system log (facility authpriv) or a file. Never waits: a line that nobody takes
/// is lost, and counted in the next one. A user can cause a few lines a minute; what is above is counted too. One
/// thread.
class AuditLog {
public:
    /// An empty path: the system log.
    explicit AuditLog(std::string path);

    enum class Level { kWarning = 4, kNotice = 5 }; // severities of syslog(3)
    /// `user` caused it. Control characters are replaced.
    void write(Level level, uid_t user, const std::string& text);

private:
    using Instant = std::chrono::steady_clock::time_point;
    struct Allowance {
        Instant begin;
        unsigned lines = 0, suppressed = 0;
    };
    bool put(Level level, const std::string& text);

    const std::string _path;
    UniqueFd _socket;
    std::map<uid_t, Allowance> _allowances;
    unsigned _lost = 0;
};

} // namespace vnt
