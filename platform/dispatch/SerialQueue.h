#pragma once

#include <functional>
#include <string>

#include "platform/base/Ref.h"

namespace vnt {

/// Serial queue. sync() runs its block on the calling thread when its turn has come (at once when the queue is
/// idle); async() blocks run on the queue's own thread, which starts at the first of them with every signal
/// blocked. Blocks run one at a time, in the order submitted. Dropping the last reference lets what is queued
/// run to its end; the last reference may be dropped from a block of the queue itself.
class SerialQueue final : public RefCounted {
public:
    [[nodiscard]] static Ref<SerialQueue> create(std::string label);

    /// Runs `block` and returns when it has run. An exception that leaves the block comes back to the caller. Must not
    /// be called from a block of this queue: that would wait for itself, and stops the process.
    void sync(const std::function<void()>& block);
    /// Queues `block` and returns. An exception that leaves the block is dropped and logged.
    void async(std::function<void()> block);

    [[nodiscard]] const std::string& label() const;
    /// True on the thread that is running a block of this queue.
    [[nodiscard]] bool isCurrent() const;

private:
    VNT_MAKE_REF_FRIEND;
    explicit SerialQueue(std::string label);
    ~SerialQueue() override;

    struct State; // shared with the thread, which may outlive the queue object
    Ref<State> _state;
};

} // namespace vnt

/// First line of a method bound to a queue.
#define VNT_ON_QUEUE(queue) VNT_CHECK((queue)->isCurrent())
