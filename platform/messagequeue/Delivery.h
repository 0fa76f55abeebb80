#pragma once

#include <functional>
#include <map>
#include <string>

#include "platform/base/Mutex.h"
#include "platform/dispatch/SerialQueue.h"
#include "platform/messagequeue/KxMessageQueue.h"

namespace vnt {

/// What one service has to tell its delegate, in order, on a queue of its own that starts with the first event. The
/// reader posts and never waits; the delegate runs with none of our locks held. Any thread.
class Delivery final : public RefCounted {
public:
    /// Events of one kind (one selector, or exceptions) that may wait for a slow delegate; more are dropped and
    /// counted. One flood cannot push out another kind's events, such as the death of the target.
    static constexpr size_t kMaxWaitingOfAKind = 1024;
    /// Different selectors that may wait at once; ours are three.
    static constexpr size_t kMaxKinds = 16;
    /// Bytes of waiting arguments; small events are let through beyond it.
    static constexpr size_t kMaxWaitingBytes = size_t{8} << 20;
    static constexpr size_t kSmallEventBytes = 4096;

    [[nodiscard]] static Ref<Delivery> create(std::string label);

    /// Whom the delegate is told about; set once, before the first event.
    void setOwner(WeakPtr<KxServiceQueue> owner);
    void setDelegate(WeakPtr<KxServiceQueueDelegate> delegate);

    /// The connection ended: told once, never dropped, kept for a delegate that is set later.
    void postErrorReading(const std::string& reason);
    void postException(const Exception& exception);
    /// `sizeBytes`: of the arguments as they came, for the limit.
    void postCallback(std::string selector, Ref<Array> arguments, size_t sizeBytes);
    /// Nothing is delivered any more, save a callback already running.
    void close();

    /// Dropped because too many waited, or because there was no delegate.
    [[nodiscard]] uint64_t droppedCount() const;
    /// Callbacks whose name the delegate does not have.
    [[nodiscard]] uint64_t ignoredCount() const;

private:
    VNT_MAKE_REF_FRIEND;
    explicit Delivery(std::string label) : _label(std::move(label)) { }

    using Event = std::function<bool(KxServiceQueueDelegate&, KxServiceQueue&)>; // false: ignored
    void post(const std::string& kind, size_t sizeBytes, Event event) VNT_EXCLUDES(_lock);
    void submit(std::function<void()> block) VNT_REQUIRES(_lock);
    void submitErrorReading() VNT_REQUIRES(_lock);
    void run(const Event& event) VNT_EXCLUDES(_lock);

    const std::string _label;
    mutable Mutex _lock;
    WeakPtr<KxServiceQueueDelegate> _delegate VNT_GUARDED_BY(_lock);
    WeakPtr<KxServiceQueue> _owner VNT_GUARDED_BY(_lock);
    Ref<SerialQueue> _queue VNT_GUARDED_BY(_lock);
    std::map<std::string, size_t> _waiting VNT_GUARDED_BY(_lock); // kind -> events
    size_t _waitingBytes VNT_GUARDED_BY(_lock) = 0;
    std::string _endReason VNT_GUARDED_BY(_lock);
    bool _endPending VNT_GUARDED_BY(_lock) = false; // the end is known and not yet queued
    bool _ended VNT_GUARDED_BY(_lock) = false;
    bool _closed VNT_GUARDED_BY(_lock) = false;
    uint64_t _dropped VNT_GUARDED_BY(_lock) = 0;
    uint64_t _ignored VNT_GUARDED_BY(_lock) = 0;
};

} // namespace vnt
