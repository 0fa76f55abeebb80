#include "services/tsec/ReplyQueueLimit.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace vnt {

bool ReplyQueueLimit::isFull()
{
    std::erase_if(_unread, [](const UniqueFd& sender) {
        int queued = 0; // SIOCOUTQ (unix(7)): bytes that the other end has not read; none as well when it is closed
        return ::ioctl(sender.get(), SIOCOUTQ, &queued) != 0 || queued == 0;
    });
    return _unread.size() >= kMaxUnread;
}

} // namespace vnt
