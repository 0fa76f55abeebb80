#pragma once

#include <memory>

#include "collectors/census/ProcessCensus.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "services/quillon/AccessGuard.h"

namespace vnt {

/// "quillon.server.services.activity": the Process Census. Its rate is the time between two sweeps in units of 100
/// milliseconds.
class ActivityService final : public MessageQueueService, private RecordSink {
public:
    ActivityService(Ref<ServiceChannel> channel, AccessGuard& guard);

    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;
    void onClose() override;

private:
    void setSamplingRate(const Array& arguments);
    void start();
    void stop();

    // RecordSink, on the census's thread.
    Status trySend(std::span<const std::byte> message) override { return _channel->trySendData(message); }
    Status send(std::span<const std::byte> message) override { return _channel->sendData(message); }
    void reportProblem(const std::string& text) override;

    const Ref<ServiceChannel> _channel;
    AccessGuard& _guard; // the worker's; outlives the connection
    std::unique_ptr<ProcessCensus> _census;
    bool _reportsCompletion = false;
};

} // namespace vnt
