#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <map>

namespace vnt {

/// How often a user was refused lately. Past the limit nothing more of that user is checked for a while, so passwords
/// cannot be tried out. A success in between forgives nothing: it may be of another account. One thread.
class FailureLimit {
public:
    using Instant = std::chrono::steady_clock::time_point;
    static constexpr size_t kMost = 10;
    static constexpr std::chrono::minutes kWindow{10};

    void note(uid_t user, Instant now);
    [[nodiscard]] bool isReached(uid_t user, Instant now);
    /// Nothing is remembered that would still count.
    [[nodiscard]] bool empty(Instant now);

private:
    // Users above so many (a user may own many numbers, subuid(5)) are refused as if they had reached theirs.
    static constexpr size_t kMaxUsers = 4096;
    void forgetOld(Instant now);

    std::map<uid_t, std::deque<Instant>> _failures;
};

} // namespace vnt
