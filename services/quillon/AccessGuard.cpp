#include "services/quillon/AccessGuard.h"

#include <cstdlib>

#include "platform/base/sys.h"
#include "platform/foundation/Error.h"

namespace vnt {
namespace {

constexpr size_t kMaxStatusBytes = 16384; // /proc/PID/status
constexpr uint64_t kFreshNs = 1'000'000'000;

constexpr const char* rightFor(AccessGuard::Reach reach)
{
    return reach == AccessGuard::Reach::kKill ? "quillon.process.kill" : "quillon.process.analysis";
}

} // namespace

bool AccessGuard::isOwn(pid_t pid) const
{
    const auto status = sys::readFile("/proc/" + std::to_string(pid) + "/status", kMaxStatusBytes);
    if (!status.ok())
        return true; // gone
    const size_t at = status.value().find("\nUid:");
    if (at == std::string::npos)
        return false;
    const char* text = status.value().c_str() + at + 5;
    for (int i = 0; i < 4; ++i) { // real, effective, saved, of the file system: proc_pid_status(5)
        char* end = nullptr;
        const unsigned long uid = std::strtoul(text, &end, 10);
        if (end == text || uid != _client)
            return false;
        text = end;
    }
    return true;
}

bool AccessGuard::holds(Reach reach)
{
    const bool held = _authority.check(_form, _client, rightFor(reach)).ok();
    if (reach == Reach::kAnalyse)
        _analysisHeldNs = held ? sys::monotonicNs() : 0;
    return held;
}

void AccessGuard::demand(pid_t pid, Reach reach)
{
    if ((pid > 0 && isOwn(pid)) || holds(reach))
        return;
    const std::string whose = pid > 0 ? "process " + std::to_string(pid) + " is another user's" : "the whole machine";
    throw Exception("VntNotAuthorized", whose + ": the right " + rightFor(reach) + " is not held");
}

bool AccessGuard::mayLookAt(pid_t pid)
{
    if (pid > 0 && isOwn(pid))
        return true;
    if (_analysisHeldNs != 0 && sys::monotonicNs() - _analysisHeldNs < kFreshNs)
        return true;
    return holds(Reach::kAnalyse);
}

} // namespace vnt
