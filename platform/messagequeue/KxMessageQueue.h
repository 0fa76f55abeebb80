#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "platform/base/Status.h"
#include "platform/base/Weak.h"
#include "platform/foundation/Error.h"

namespace vnt {

class KxServiceQueue;
class MessageQueueTransport; // reader thread, channels and pending calls of one connection (client end)

/// What a service tells its owner. Held weakly; every method runs on the service's delivery thread with no lock
/// of ours held, one at a time, in the order the events arrived. Nothing is delivered after the delegate was cleared,
/// save a callback already running.
class KxServiceQueueDelegate {
public:
    virtual ~KxServiceQueueDelegate() = default;
    /// The connection ended, was reset, or carried something malformed; the description begins with "the connection to
    /// the server is gone". Once per service; not after an end of our
    /// own making (hardStop, or the message queue's destruction).
    virtual void serviceQueueErrorReading(KxServiceQueue& queue, const Ref<String>& description);
    /// The peer raised an exception outside any call of ours, or in answer to a one-way call.
    virtual void serviceQueuePeerExceptionRaised(KxServiceQueue& queue, const Exception& exception);
    /// A remote call of the peer: true when `selector` is one of the delegate's remotely callable methods (others are
    /// ignored and counted). `arguments` is never null.
    virtual bool performCallback(const std::string& selector, const Ref<Array>& arguments);
};

enum class TimeoutBehavior {
    kWaitForever = 0, ///< until the peer answers or goes
    kGiveUpAfterDefault = 1, ///< 60 s, then an Exception
};

/// The session's connection to its server: one stream socket, multiplexed by service name. Created on any
/// thread; its reader thread starts at once. Calls may come from any thread.
class KxMessageQueue final : public RefCounted {
public:
    /// Connects to a "unix:" URL. Raises Exception when the address is no such URL, nobody listens there, or the peer
    /// is not of this uid or root.
    [[nodiscard]] static Ref<KxMessageQueue> initWithAddress(const Url& address);

    /// Opens the service named `identifier` for the life of the returned queue. Succeeds even when the server lacks
    /// it: a call on it raises then. Raises Exception when the connection is already gone.
    [[nodiscard]] Ref<KxServiceQueue> createServiceForIdentifier(const String& identifier);

    /// Only `hardStop` is understood: the connection ends at once, waiting calls raise. A reply target would be
    /// ignored; the parameters have the shape of the service's own call.
    void returnToTarget(std::nullptr_t target, std::nullptr_t replySelector, std::string_view selector);

private:
    VNT_MAKE_REF_FRIEND;
    explicit KxMessageQueue(Ref<MessageQueueTransport> transport);
    ~KxMessageQueue() override; // closes the connection; never waits for a delegate callback
    const Ref<MessageQueueTransport> _transport;
};

/// One open service. Data messages that arrive on it go to its spool file, not to memory. Any thread.
class KxServiceQueue final : public RefCounted {
public:
    /// Replaces the delegate; an empty pointer clears it.
    void setDelegate(WeakPtr<KxServiceQueueDelegate> delegate);

    /// Synchronous remote call: the answer, or null when the server answered nothing. Raises Exception when the peer
    /// raised, the connection broke, or an argument cannot be encoded. Waits without limit for a live peer.
    Ref<Object> dispatch(std::string_view selector, std::initializer_list<Ref<Object>> arguments = {});
    Ref<Object> dispatch(std::string_view selector, TimeoutBehavior behavior,
                         std::initializer_list<Ref<Object>> arguments = {});

    /// One-way call when `target` is null (the only form that is served): the reply is not awaited. Never raises for a
    /// lost connection: that reaches the delegate.
    void returnToTarget(std::nullptr_t target, std::nullptr_t replySelector, std::string_view selector,
                        std::initializer_list<Ref<Object>> arguments = {});

    [[nodiscard]] const Ref<String>& identifier() const;
    /// Data messages in the spool that an archive would hold.
    [[nodiscard]] uint64_t messageCount() const;
    /// Messages that could not be spooled (disk full); reported by the archive as a loss frame too.
    [[nodiscard]] uint64_t droppedCount() const;
    /// Moves (same file system) or copies the spool to the "file:" URL, replacing what is there. Returns the number of
    /// messages written; 0 on failure. Later data begins an empty stream.
    uint64_t archiveWithFile(const Url& file);
    /// Empties the stream, for a recording that begins anew.
    void discardMessages();

    /// Hands `exception` to the delegate as if the peer had raised it outside a call; for those who make calls on
    /// behalf of the service and have no caller to tell.
    void reportException(const Exception& exception);
    /// Events that were dropped because too many waited for a slow delegate, or there was none.
    [[nodiscard]] uint64_t droppedCallbackCount() const;
    /// Callbacks whose name the delegate does not have.
    [[nodiscard]] uint64_t ignoredCallbackCount() const;

    /// Closes the service: pending calls raise, the delegate hears nothing more. Waits for nothing.
    void disconnect();

private:
    VNT_MAKE_REF_FRIEND;
    friend class KxMessageQueue;
    friend class MessageQueueTransport;
    struct State;
    [[nodiscard]] static Ref<KxServiceQueue> create(std::shared_ptr<State> state);
    explicit KxServiceQueue(std::shared_ptr<State> state);
    ~KxServiceQueue() override; // disconnects and removes the spool
    const std::shared_ptr<State> _state;
    WeakAnchor _anchor; // keep last: cleared before the rest goes
};

} // namespace vnt
