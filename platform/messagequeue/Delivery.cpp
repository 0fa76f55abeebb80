#include "platform/messagequeue/Delivery.h"

namespace vnt {

Ref<Delivery> Delivery::create(std::string label) { return makeRef<Delivery>(std::move(label)); }

void Delivery::setOwner(WeakPtr<KxServiceQueue> owner)
{
    MutexLock lock(_lock);
    _owner = std::move(owner);
}

void Delivery::setDelegate(WeakPtr<KxServiceQueueDelegate> delegate)
{
    MutexLock lock(_lock);
    _delegate = std::move(delegate);
    if (_delegate && _endPending && !_closed)
        submitErrorReading();
}

void Delivery::postErrorReading(const std::string& reason)
{
    MutexLock lock(_lock);
    if (_ended || _closed)
        return;
    _ended = true;
    _endPending = true;
    _endReason = reason;
    if (_delegate)
        submitErrorReading();
}

void Delivery::submitErrorReading()
{
    _endPending = false;
    submit([self = Ref<Delivery>(this), text = String::create(_endReason)] {
        self->run([&](KxServiceQueueDelegate& delegate, KxServiceQueue& queue) {
            delegate.serviceQueueErrorReading(queue, text);
            return true;
        });
    });
}

void Delivery::postException(const Exception& exception)
{
    // No selector is empty: the empty name stands for exceptions.
    post("", exception.reason().size(), [exception](KxServiceQueueDelegate& delegate, KxServiceQueue& queue) {
        delegate.serviceQueuePeerExceptionRaised(queue, exception);
        return true;
    });
}

void Delivery::postCallback(std::string selector, Ref<Array> arguments, size_t sizeBytes)
{
    post(selector, sizeBytes,
         [selector, arguments = std::move(arguments)](KxServiceQueueDelegate& delegate, KxServiceQueue&) {
             return delegate.performCallback(selector, arguments);
         });
}

void Delivery::post(const std::string& kind, size_t sizeBytes, Event event)
{
    MutexLock lock(_lock);
    auto waiting = _waiting.find(kind);
    const bool full = waiting == _waiting.end() ? _waiting.size() >= kMaxKinds : waiting->second >= kMaxWaitingOfAKind;
    const bool heavy = sizeBytes > kSmallEventBytes && _waitingBytes + sizeBytes > kMaxWaitingBytes;
    if (_closed || !_delegate || full || heavy) {
        ++_dropped;
        return;
    }
    ++_waiting[kind];
    _waitingBytes += sizeBytes;
    submit([self = Ref<Delivery>(this), kind, sizeBytes, event = std::move(event)] {
        {
            MutexLock relock(self->_lock);
            const auto entry = self->_waiting.find(kind);
            if (--entry->second == 0)
                self->_waiting.erase(entry);
            self->_waitingBytes -= sizeBytes;
        }
        self->run(event);
    });
}

void Delivery::submit(std::function<void()> block)
{
    if (!_queue)
        _queue = SerialQueue::create(_label);
    _queue->async(std::move(block));
}

void Delivery::run(const Event& event)
{
    WeakPtr<KxServiceQueueDelegate> weakDelegate;
    WeakPtr<KxServiceQueue> weakOwner;
    {
        MutexLock lock(_lock);
        if (_closed)
            return;
        weakDelegate = _delegate;
        weakOwner = _owner;
    }
    const auto delegate = weakDelegate.lock();
    const auto owner = weakOwner.lock();
    if (!delegate || !owner || event(*delegate.get(), *owner.get()))
        return;
    MutexLock lock(_lock);
    ++_ignored;
}

void Delivery::close()
{
    MutexLock lock(_lock);
    _closed = true;
    _delegate = {};
}

uint64_t Delivery::droppedCount() const
{
    MutexLock lock(_lock);
    return _dropped;
}

uint64_t Delivery::ignoredCount() const
{
    MutexLock lock(_lock);
    return _ignored;
}

} // namespace vnt
