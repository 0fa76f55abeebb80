#pragma once

#include <map>

#include "platform/dispatch/SerialQueue.h"
#include "platform/mach/PortServer.h"
#include "services/tsec/ProcessRecorder.h"
#include "services/tsec/ReplyQueueLimit.h"

namespace vnt {

/// The watches of all clients. A watch is a send right to its client's handle; it ends by request or when the handle
/// dies. While there is one, processes are recorded. The server's thread; answers with signatures are made beside it.
class Watches {
public:
    /// The server outlives this.
    explicit Watches(PortServer& server);
    ~Watches();

    /// Begins a watch; takes the reference to `handle`. Returns what the client is told: 0, KERN_INVALID_ARGUMENT (the
    /// handle is dead, or has a watch), KERN_RESOURCE_SHORTAGE (too many), KERN_FAILURE with the reason in `why`.
    kern_return_t begin(mach_port_name_t handle, uid_t user, std::string& why);

    /// Answers `reply` with the signatures of a watch, later; with `end` it is over then. Takes the references to
    /// `handle` and `reply`.
    void answer(mach_port_name_t handle, uid_t user, mach_port_name_t reply, int32_t requestId, bool end);

    /// Watches, and answers being made.
    [[nodiscard]] bool busy() const { return !_watches.empty() || _pending != 0; }

private:
    struct Watch {
        uid_t user = 0;
        uint64_t sinceNs = 0;
        uint64_t deathWatch = 0;
        size_t pending = 0;
        bool ending = false;
        ReplyQueueLimit unread;
    };
    struct Answer;
    kern_return_t mayAnswer(mach_port_name_t handle, uid_t user);
    void onAnswered(mach_port_name_t handle, uint64_t deathWatch, UniqueFd sender, bool end);
    void end(mach_port_name_t handle);

    PortServer& _server;
    std::map<mach_port_name_t, Watch> _watches;
    size_t _pending = 0;
    std::shared_ptr<ProcessRecorder> _recorder; // shared with the answers being made
    const Ref<SerialQueue> _answers;
};

} // namespace vnt
