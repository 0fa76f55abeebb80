#pragma once

#include <cstddef>
#include <vector>

#include "platform/base/UniqueFd.h"

namespace vnt {

/// Large answers that one client has not read yet. Each may hold tens of megabytes of memory that is ours, so a client
/// that asks and never reads gets no further ones. One thread.
class ReplyQueueLimit {
public:
    static constexpr size_t kMaxUnread = 4;

    /// `sender`: a duplicate of the reply right's sending end, after the answer was sent.
    void add(UniqueFd sender) { _unread.push_back(std::move(sender)); }
    [[nodiscard]] bool isFull();

private:
    std::vector<UniqueFd> _unread;
};

} // namespace vnt
