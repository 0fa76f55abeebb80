#pragma once

#include <atomic>
#include <memory>

#include "collectors/heap/HeapCollector.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "services/quillon/AccessGuard.h"
#include "services/quillon/SessionHeap.h"
#include "services/quillon/SignatureStore.h"

namespace vnt {

/// "quillon.server.services.objrecord": the Heap Recorder. Prepares the environment of a program to launch, so that the
/// journal is loaded into it, and collects what the journal writes. What cannot be done is told as an exception of the
/// service: the other instruments go on.
class ObjRecordService final : public MessageQueueService, private RecordSink, private HeapTargetObserver {
public:
    ObjRecordService(Ref<ServiceChannel> channel, SignatureStore& signatures, AccessGuard& guard, SessionHeap& heap,
                     uid_t clientUid);
    ~ObjRecordService() override;

    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;
    void onClose() override;

private:
    Ref<Object> prepareEnvironment(const Array& arguments);
    Ref<Object> attach(const Array& arguments);
    void startCollection();
    void stopCollection();
    void reportComplete();

    // RecordSink, on the collector's thread.
    Status trySend(std::span<const std::byte> message) override { return _channel->trySendData(message); }
    Status send(std::span<const std::byte> message) override { return _channel->sendData(message); }
    void reportProblem(const std::string& text) override;

    // HeapTargetObserver, on the collector's threads.
    void onTargetStarted(uint64_t timeNs, pid_t pid, const std::string& name, bool again) override;
    void onNewCode(pid_t pid) override;
    void onTargetExiting(HeapView& heap) override;
    void onTargetEnded(pid_t pid) override;

    const Ref<ServiceChannel> _channel;
    SignatureStore& _signatures; // the worker's; outlives the connection
    AccessGuard& _guard; // likewise
    SessionHeap& _heap; // likewise
    const uid_t _clientUid;
    std::atomic<bool> _reportsCompletion{false};
    std::unique_ptr<HeapCollector> _collector; // keep last: its threads call into the rest
};

} // namespace vnt
