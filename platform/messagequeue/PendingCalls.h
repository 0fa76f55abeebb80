#pragma once

#include <semaphore.h>

#include <atomic>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/messagequeue/sockets.h"

namespace vnt::queue {

/// One call that waits for its answer. Lives on the caller's stack; whoever takes it out of PendingCalls completes it,
/// once, and touches it no more.
class PendingCall {
public:
    enum class Outcome { kReply, kException, kLost };

    explicit PendingCall(uint32_t channelNumber) : channel(channelNumber) { ::sem_init(&_done, 0, 0); }
    ~PendingCall() { ::sem_destroy(&_done); }
    PendingCall(const PendingCall&) = delete;
    PendingCall& operator=(const PendingCall&) = delete;

    void complete(Outcome how, std::vector<std::byte> bytes, std::string why = {});
    /// False when the deadline passed. Without a deadline it waits for complete().
    bool wait(Deadline deadline);
    /// True once wait() would not wait.
    [[nodiscard]] bool completed() const { return _completed.load(std::memory_order_acquire); } // pairs with complete()

    const uint32_t channel;
    // Valid after wait() answered true, and it must have.
    Outcome outcome = Outcome::kLost;
    std::vector<std::byte> payload;
    std::string reason; // of kLost

private:
    std::atomic<bool> _completed = false; // publishes the outcome, also to who watches races and knows no semaphore
    sem_t _done; // sem_overview(7): a semaphore may be destroyed as soon as its wait has returned
};

/// The calls of one connection that wait, by id. Any thread.
class PendingCalls {
public:
    /// The new call's id, never 0; 0 when the connection has ended, and `reason` says why.
    uint32_t add(PendingCall& call, std::string& reason);
    /// Gives a call up: its answer will be dropped. False when its completion has begun; wait for it then. `sent`: an
    /// answer is to be expected.
    bool abandon(uint32_t id, bool sent);
    /// The call that an answer belongs to; null with `*expected` true for one given up, false for an id that waits for
    /// nothing.
    PendingCall* take(uint32_t id, uint32_t channel, bool* expected);
    /// Completes every call of a channel as lost; false when there was none.
    bool loseChannel(uint32_t channel, const std::string& reason);
    /// Completes every call as lost, and later ones are refused. The first reason stays; false when there was one.
    bool loseAll(const std::string& reason);

private:
    Mutex _lock;
    std::unordered_map<uint32_t, PendingCall*> _calls VNT_GUARDED_BY(_lock);
    std::set<uint32_t> _abandoned VNT_GUARDED_BY(_lock);
    uint32_t _lastId VNT_GUARDED_BY(_lock) = 0;
    bool _ended VNT_GUARDED_BY(_lock) = false;
    std::string _endReason VNT_GUARDED_BY(_lock);
};

} // namespace vnt::queue
