#pragma once

#include "platform/messagequeue/Delivery.h"
#include "platform/messagequeue/KxMessageQueue.h"
#include "platform/messagequeue/MessageQueueTransport.h"
#include "platform/messagequeue/Spool.h"

namespace vnt {

/// What an open service is made of; shared by its KxServiceQueue and the connection's reader.
struct KxServiceQueue::State {
    State(Ref<MessageQueueTransport> connection, uint32_t number, Ref<String> name)
        : transport(std::move(connection)),
          channel(number),
          identifier(std::move(name)),
          spool(identifier->str()),
          delivery(Delivery::create("delivery of " + identifier->str()))
    {
    }

    const Ref<MessageQueueTransport> transport;
    const uint32_t channel;
    const Ref<String> identifier;
    Spool spool;
    const Ref<Delivery> delivery;
    bool closed = false; // guarded by the transport's send lock: nothing is sent on a closed channel
};

} // namespace vnt
