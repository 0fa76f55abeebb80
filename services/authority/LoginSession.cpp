#include "services/authority/LoginSession.h"

#include <charconv>
#include <sstream>

namespace vnt {
namespace {

constexpr uint32_t kUnaudited = UINT32_MAX; // of /proc/PID/sessionid (proc(5))

uint32_t auditSession(const std::string& directory)
{
    const auto text = sys::readFile(directory + "/sessionid", 64);
    uint32_t id = kUnaudited;
    if (text.ok())
        (void)std::from_chars(text.value().data(), text.value().data() + text.value().size(), id);
    return id;
}

} // namespace

ProcessStat ProcessStat::of(pid_t process)
{
    ProcessStat stat;
    const auto text = sys::readFile("/proc/" + std::to_string(process) + "/stat", 4096);
    // The name before may hold anything, also what looks like fields.
    const size_t end = text.ok() ? text.value().rfind(')') : std::string::npos;
    if (end == std::string::npos)
        return stat;
    std::istringstream fields(text.value().substr(end + 1));
    std::string skipped;
    int terminal = 0;
    fields >> skipped >> skipped >> skipped >> stat.session >> terminal; // state, ppid, pgrp
    for (int i = 8; i < 22; ++i)
        fields >> skipped;
    fields >> stat.startTime;
    stat.terminal = static_cast<dev_t>(static_cast<unsigned>(terminal));
    return fields ? stat : ProcessStat();
}

LoginSession LoginSession::of(const sys::PeerCredentials& peer)
{
    const std::string directory = "/proc/" + std::to_string(peer.pid);
    LoginSession session;
    session.user = peer.uid;
    const uint32_t audited = auditSession(directory);
    const ProcessStat stat = ProcessStat::of(peer.pid);
    // Another user's process by now: the one that connected is gone.
    const auto info = sys::statFile(directory);
    if (stat.startTime == 0 || !info.ok() || (info.value().st_uid != peer.uid && info.value().st_uid != 0))
        return session;
    session.isAudited = audited != kUnaudited;
    if (session.isAudited) {
        session.id = audited;
        return session;
    }
    // A leader outside this pid namespace has no number here, and so cannot be told from others: the process is alone.
    session.id = static_cast<uint64_t>(stat.session != 0 ? stat.session : peer.pid);
    session.leaderStart = stat.session != 0 ? ProcessStat::of(stat.session).startTime : stat.startTime;
    return session;
}

} // namespace vnt
