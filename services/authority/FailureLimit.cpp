#include "services/authority/FailureLimit.h"

namespace vnt {

void FailureLimit::forgetOld(Instant now)
{
    for (auto& [user, times] : _failures) {
        while (!times.empty() && now - times.front() >= kWindow)
            times.pop_front();
    }
    std::erase_if(_failures, [](const auto& entry) { return entry.second.empty(); });
}

void FailureLimit::note(uid_t user, Instant now)
{
    auto& times = _failures[user];
    times.push_back(now);
    if (times.size() > kMost)
        times.pop_front();
}

bool FailureLimit::isReached(uid_t user, Instant now)
{
    forgetOld(now);
    const auto found = _failures.find(user);
    return found == _failures.end() ? _failures.size() >= kMaxUsers : found->second.size() >= kMost;
}

bool FailureLimit::empty(Instant now)
{
    forgetOld(now);
    return _failures.empty();
}

} // namespace vnt
