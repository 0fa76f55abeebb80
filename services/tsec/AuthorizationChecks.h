#pragma once

#include <functional>
#include <map>
#include <vector>

#include "platform/authorization/Authorization.h"
#include "platform/dispatch/SerialQueue.h"

namespace vnt {

/// Asks the authority whether the reference behind a form holds rights, beside the server's thread: an authority that
/// stalls holds up only those who need it. Bounded for all and for each user. The server's thread.
class AuthorizationChecks {
public:
    using Post = std::function<void(std::function<void()>)>;
    /// `post` runs its argument on the server's thread.
    explicit AuthorizationChecks(Post post);
    /// Waits for the checks that are under way.
    ~AuthorizationChecks();

    /// Calls `done` once on the server's thread, later: ok when every one of `rights` is held by `user`'s reference
    /// now. False, and nothing happens, when too many wait.
    bool check(const AuthorizationExternalForm& form, uid_t user, std::vector<const char*> rights,
               std::function<void(const Status&)> done);
    [[nodiscard]] size_t pending() const { return _pending; }

private:
    const Post _post;
    size_t _pending = 0;
    std::map<uid_t, size_t> _pendingOf;
    const Ref<SerialQueue> _queue;
};

} // namespace vnt
