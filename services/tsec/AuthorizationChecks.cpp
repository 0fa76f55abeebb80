#include "services/tsec/AuthorizationChecks.h"

namespace vnt {
namespace {

// One check takes about 0.2 ms: a full queue is worked off in some 50.
constexpr size_t kMaxPending = 256;
constexpr size_t kMaxPendingOfUser = 32;

} // namespace

AuthorizationChecks::AuthorizationChecks(Post post)
    : _post(std::move(post)),
      _queue(SerialQueue::create("KxTSecD.authorization"))
{
}

AuthorizationChecks::~AuthorizationChecks()
{
    _queue->sync([] {});
}

bool AuthorizationChecks::check(const AuthorizationExternalForm& form, uid_t user, std::vector<const char*> rights,
                                std::function<void(const Status&)> done)
{
    size_t& ofUser = _pendingOf[user];
    if (_pending >= kMaxPending || ofUser >= kMaxPendingOfUser)
        return false;
    ++_pending;
    ++ofUser;
    _queue->async([this, form, user, rights = std::move(rights), done = std::move(done)] {
        Status status;
        for (const char* right : rights) {
            if (status.ok())
                status = checkAuthorization(form, user, right);
        }
        _post([this, user, status, done] {
            --_pending;
            if (const auto left = _pendingOf.find(user); --left->second == 0)
                _pendingOf.erase(left);
            done(status);
        });
    });
    return true;
}

} // namespace vnt
