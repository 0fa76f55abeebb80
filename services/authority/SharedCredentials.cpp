#include "services/authority/SharedCredentials.h"

#include <algorithm>

namespace vnt {
namespace {

constexpr size_t kMaxPerSession = 4;
constexpr size_t kMaxSessionsPerUser = 16;
constexpr size_t kMaxSessions = 1024;
// Whatever a definition says: who logs in once a day types once a day.
constexpr std::chrono::hours kLongest{24};

} // namespace

bool Credential::isOneOf(const std::vector<std::string>& accepted) const
{
    return user == 0 || std::any_of(groups.begin(), groups.end(), [&](const std::string& group) {
               return std::find(accepted.begin(), accepted.end(), group) != accepted.end();
           });
}

void SharedCredentials::add(const LoginSession& session, Credential credential)
{
    if (!session.isKnown())
        return;
    const auto evictOldest = [&](auto mayGo) {
        auto oldest = _held.end();
        for (auto it = _held.begin(); it != _held.end(); ++it) {
            const bool older = oldest == _held.end() || it->second.back().obtained < oldest->second.back().obtained;
            if (mayGo(it->first) && older)
                oldest = it;
        }
        if (oldest != _held.end())
            _held.erase(oldest);
    };
    if (!_held.count(session)) {
        const auto ofUser = [&](const LoginSession& other) { return other.user == session.user; };
        if (std::count_if(_held.begin(), _held.end(), [&](const auto& entry) { return ofUser(entry.first); })
            >= static_cast<ptrdiff_t>(kMaxSessionsPerUser))
            evictOldest(ofUser);
        else if (_held.size() >= kMaxSessions)
            evictOldest([](const LoginSession&) { return true; });
    }
    auto& held = _held[session];
    std::erase_if(held, [&](const Credential& other) { return other.user == credential.user; });
    if (held.size() >= kMaxPerSession)
        held.erase(held.begin());
    held.push_back(std::move(credential));
}

const Credential* SharedCredentials::find(const LoginSession& session, const RightRule& rule,
                                          const std::vector<std::string>& groups, Instant now) const
{
    const auto found = _held.find(session);
    if (!rule.shared || found == _held.end())
        return nullptr;
    const std::chrono::seconds longest = std::min<std::chrono::seconds>(rule.timeout.value_or(kLongest), kLongest);
    for (auto it = found->second.rbegin(); it != found->second.rend(); ++it) {
        if (now < it->obtained + longest && it->isOneOf(groups))
            return &*it;
    }
    return nullptr;
}

bool SharedCredentials::empty(Instant now)
{
    for (auto& [session, held] : _held)
        std::erase_if(held, [&](const Credential& credential) { return now >= credential.obtained + kLongest; });
    std::erase_if(_held, [](const auto& entry) { return entry.second.empty(); });
    return _held.empty();
}

} // namespace vnt
