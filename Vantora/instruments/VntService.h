#pragma once

#include <atomic>

#include "Vantora/Vantora"
#include "platform/base/Weak.h"
#include "platform/messagequeue/KxMessageQueue.h"

namespace vnt {

class VntInstrument;

/// The channel of one instrument to its service on the server. Owned by its instrument; callbacks of the service
/// arrive on the service's delivery thread, everything else on the session's threads.
class VntService final : public Object, public KxServiceQueueDelegate {
public:
    /// Opens the service: blocks on the session's worker queue, so the caller must not be on it. Raises Exception when
    /// the connection is gone.
    static Ref<VntService> initWithID(Ref<String> serviceID, VntInstrument& parent, VantoraErrorCallback errorCallback);

    [[nodiscard]] const Ref<String>& ID() const { return _ID; }
    [[nodiscard]] const Ref<KxServiceQueue>& service() const { return _service; }
    void setService(Ref<KxServiceQueue> service) { _service = std::move(service); }
    /// Null when the server does not know the service.
    [[nodiscard]] const Ref<Number>& serviceVersion() const { return _serviceVersion; }
    void setServiceVersion(Ref<Number> version) { _serviceVersion = std::move(version); }

    [[nodiscard]] bool usesTap() const;
    /// Called by the server when the service has delivered its data; reports for other services are ignored.
    void serviceActionCompleted(const Dictionary& status);
    void setCompleted() { _serviceComplete.store(true, std::memory_order_relaxed); }
    /// Polls for completion, about 20 s at most. True means that it gave up.
    bool waitUntilComplete();

    /// Closes the channel and drops what was not saved. A callback that is running may keep this object, not the
    /// channel.
    void disconnect();

    // KxServiceQueueDelegate. Errors go to the caller's callback, tagged with the service's name.
    void serviceQueueErrorReading(KxServiceQueue& queue, const Ref<String>& description) override;
    void serviceQueuePeerExceptionRaised(KxServiceQueue& queue, const Exception& exception) override;
    bool performCallback(const std::string& selector, const Ref<Array>& arguments) override;

private:
    VNT_MAKE_REF_FRIEND;
    VntService(Ref<String> serviceID, VntInstrument& parent, VantoraErrorCallback errorCallback);
    ~VntService() override;
    void registerService();
    void reportError(std::string_view text);

    Ref<String> _ID;
    Ref<KxServiceQueue> _service;
    Ref<Number> _serviceVersion;
    std::atomic<bool> _serviceComplete{false}; // relaxed: one flag, polled; it orders nothing else
    const VantoraErrorCallback _errorCallback;
    VntInstrument& _parentInstrument; // outlives its service

    WeakAnchor _weak{this}; // last: cleared before anything else goes
};

} // namespace vnt
