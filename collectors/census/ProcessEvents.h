#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

/// Beginning, exec and end of every process of the machine, as the kernel tells them (the process events connector,
/// <linux/cn_proc.h>). About 12 us of the reader for each event, and a fifth more for each spawn. One thread.
class ProcessEvents {
public:
    struct Event {
        enum class Kind {
            kStarted,
            kExecuted,
            kEnded, ///< its first thread: others may go on
            kThreadEnded, ///< one of the others
        };
        Kind kind = Kind::kStarted;
        uint64_t timeNs = 0; ///< CLOCK_MONOTONIC
        pid_t pid = 0;
        pid_t parent = 0; ///< of kStarted
        uint32_t status = 0; ///< of the last two, as of wait(2); the process's is that of its last thread
    };

    /// Errors say what would allow it.
    static Result<ProcessEvents> open();

    /// Readable when events wait.
    [[nodiscard]] int descriptor() const { return _socket.get(); }
    /// Passes on every event that waits; never blocks. False when the kernel had to drop some since the last call.
    bool drain(const std::function<void(const Event&)>& onEvent);

private:
    explicit ProcessEvents(UniqueFd socket) : _socket(std::move(socket)) { }
    UniqueFd _socket;
};

} // namespace vnt
