#pragma once

#include <functional>
#include <memory>
#include <span>
#include <string>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"
#include "platform/foundation/Error.h"

namespace vnt {

class MessageQueueServerConnection;

/// One service of a server, as its connection sees it. Every method runs on the thread that runs the
/// connection (one at a time, in the order of the client's requests).
class MessageQueueService {
public:
    virtual ~MessageQueueService() = default;
    /// The client opened the service. `channel` stays valid until the connection ends; keep it to send.
    virtual void onOpen() { }
    /// A call, synchronous or one-way. The answer may be null. Throw Exception to raise at the client (for a
    /// one-way call it arrives as a peer exception). Unknown selectors: throw too.
    virtual Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) = 0;
    /// The client closed the service or the connection ended; called once. Stop what runs.
    virtual void onClose() { }
};

/// Where a service's traffic to the client goes; safe from any thread, valid for the connection's life and
/// after it (sends then answer kPeerGone).
class ServiceChannel : public RefCounted {
public:
    /// Queues one data message if the connection's buffers have room now: kTooLarge past kMaxDataMessageBytes,
    /// kTimedOut ("would block") when there is no room - the caller drops the batch and counts it.
    virtual Status trySendData(std::span<const std::byte> message) = 0;
    /// As above, but waits for room until the peer is gone.
    virtual Status sendData(std::span<const std::byte> message) = 0;
    /// One-way remote call of one of the client's callback methods.
    virtual Status sendCallback(std::string_view selector, const Array& arguments) = 0;
    /// Raises at the client outside any call: its delegate's peer exception.
    virtual Status sendException(const Exception& exception) = 0;
};

/// Server end of one connection, driven by one thread; who connects is checked before the socket gets here. Everything
/// a service sent before a reply is on the wire before that reply.
class MessageQueueServerConnection final {
public:
    using ServiceFactory =
        std::function<std::unique_ptr<MessageQueueService>(const std::string& name, const Ref<ServiceChannel>&)>;

    /// `factory` answers null for a name that the server lacks; calls on it raise at the client.
    MessageQueueServerConnection(UniqueFd socket, ServiceFactory factory);
    ~MessageQueueServerConnection();

    /// Serves until the client closes, sends hardStop, breaks the protocol, or stop() is called. Services get
    /// onClose() before it returns. The status says why it ended; a clean end is ok.
    Status run();
    /// From any thread: makes run() return.
    void stop();
    /// True once the client has hung up, also while a long request is being served; for requests that poll.
    [[nodiscard]] bool clientGone() const;

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace vnt
