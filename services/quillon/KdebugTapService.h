#pragma once

#include <memory>

#include "collectors/common/RecordSink.h"
#include "collectors/kernel/KernelTracer.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "platform/zelto/KxZelto.h"
#include "services/quillon/AccessGuard.h"
#include "services/quillon/SignatureStore.h"

namespace vnt {

/// What a tap's configuration asks of the kernel tracer. Errors name the part that makes no sense.
Result<KernelTracerOptions> kernelTracerOptions(const KxZeltoTapConfig& configuration);

/// "quillon.server.services.kdebugtap": the Kernel Tracer's tap. A tap that cannot start answers normally and sends its
/// reason as an exception of the service: the other instruments go on.
class KdebugTapService final : public MessageQueueService, private RecordSink {
public:
    /// `traceFiles`: of openTraceFiles(); outlives the connection.
    KdebugTapService(Ref<ServiceChannel> channel, SignatureStore& signatures, AccessGuard& guard, int traceFiles);
    ~KdebugTapService() override;

    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;
    void onClose() override;

private:
    void start(const Array& arguments);
    void stop();
    void report(const Status& status);

    // RecordSink, on the tracer's thread.
    Status trySend(std::span<const std::byte> message) override { return _channel->trySendData(message); }
    Status send(std::span<const std::byte> message) override { return _channel->sendData(message); }
    void reportProblem(const std::string& text) override;

    const Ref<ServiceChannel> _channel;
    SignatureStore& _signatures; // the worker's; outlives the connection
    AccessGuard& _guard; // likewise
    const int _traceFiles;
    std::unique_ptr<KernelTracer> _tracer;
};

} // namespace vnt
