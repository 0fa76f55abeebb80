#pragma once

#include <sys/types.h>

#include <cstdint>
#include <tuple>

#include "platform/base/sys.h"

namespace vnt {

/// Where a client was logged in: the kernel's audit session where there is one, else the session of its terminal or
/// service, known by its leader. A credential that was gained in one serves no other.
struct LoginSession {
    uid_t user = 0;
    bool isAudited = false;
    uint64_t id = 0;
    uint64_t leaderStart = 0; ///< a pid is used again, the time its process started is not

    /// Of the process at the other end; none (id 0, which equals no other of the same user) when it is gone already.
    static LoginSession of(const sys::PeerCredentials& peer);
    [[nodiscard]] bool isKnown() const { return id != 0; }
    friend bool operator<(const LoginSession& left, const LoginSession& right)
    {
        const auto key = [](const LoginSession& s) { return std::tie(s.user, s.isAudited, s.id, s.leaderStart); };
        return key(left) < key(right);
    }
};

/// Fields of /proc/PID/stat (proc(5)), all zero when there is no such process.
struct ProcessStat {
    pid_t session = 0;
    dev_t terminal = 0; ///< 0: none
    uint64_t startTime = 0; ///< clock ticks after boot

    static ProcessStat of(pid_t process);
};

} // namespace vnt
