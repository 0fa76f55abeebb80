#include "platform/messagequeue/ServiceState.h"

namespace vnt {

Ref<KxServiceQueue> KxServiceQueue::create(std::shared_ptr<State> state)
{
    auto queue = makeRef<KxServiceQueue>(std::move(state));
    queue->_state->delivery->setOwner(queue->_anchor.pointer(queue.get()));
    return queue;
}

KxServiceQueue::KxServiceQueue(std::shared_ptr<State> state) : _state(std::move(state)), _anchor(this) { }

KxServiceQueue::~KxServiceQueue()
{
    _anchor.clear();
    disconnect();
    _state->spool.close();
}

void KxServiceQueue::setDelegate(WeakPtr<KxServiceQueueDelegate> delegate)
{
    _state->delivery->setDelegate(std::move(delegate));
}

Ref<Object> KxServiceQueue::dispatch(std::string_view selector, std::initializer_list<Ref<Object>> arguments)
{
    return dispatch(selector, TimeoutBehavior::kWaitForever, arguments);
}

Ref<Object> KxServiceQueue::dispatch(std::string_view selector, TimeoutBehavior behavior,
                                     std::initializer_list<Ref<Object>> arguments)
{
    return _state->transport->call(*_state, selector, {arguments.begin(), arguments.size()}, behavior);
}

void KxServiceQueue::returnToTarget(std::nullptr_t, std::nullptr_t, std::string_view selector,
                                    std::initializer_list<Ref<Object>> arguments)
{
    _state->transport->callOneWay(*_state, selector, {arguments.begin(), arguments.size()});
}

const Ref<String>& KxServiceQueue::identifier() const { return _state->identifier; }

uint64_t KxServiceQueue::messageCount() const { return _state->spool.messageCount(); }

uint64_t KxServiceQueue::droppedCount() const { return _state->spool.droppedCount(); }

uint64_t KxServiceQueue::droppedCallbackCount() const { return _state->delivery->droppedCount(); }

uint64_t KxServiceQueue::ignoredCallbackCount() const { return _state->delivery->ignoredCount(); }

uint64_t KxServiceQueue::archiveWithFile(const Url& file)
{
    if (file.scheme() != "file")
        return 0;
    const auto count = _state->spool.archiveTo(file.path());
    return count.ok() ? count.value() : 0;
}

void KxServiceQueue::discardMessages() { _state->spool.discard(); }

void KxServiceQueue::reportException(const Exception& exception) { _state->delivery->postException(exception); }

void KxServiceQueue::disconnect() { _state->transport->close(*_state); }

} // namespace vnt
