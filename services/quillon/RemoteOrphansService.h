#pragma once

#include <atomic>
#include <thread>

#include "collectors/orphans/ResultWriter.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "services/quillon/AccessGuard.h"
#include "services/quillon/SessionHeap.h"

namespace vnt {

/// "quillon.server.services.remoteorphans": the Orphan Finder. Searches the session's journaled target for leaks when
/// asked, and unasked when the target ends by itself.
class RemoteOrphansService final : public MessageQueueService, private RecordSink, private SessionHeap::ExitObserver {
public:
    RemoteOrphansService(Ref<ServiceChannel> channel, SessionHeap& heap, AccessGuard& guard);
    ~RemoteOrphansService() override;

    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;
    void onClose() override;

private:
    void requestLeaks(const Array& arguments);
    void cancelAllRequests();
    void settleExit();
    void awaitExitSearch();
    void reportComplete();
    void tell(const orphans::OrphanResult& result);
    void tellNotSearched(pid_t pid, const std::string& reason);

    // RecordSink, on the thread that tells.
    Status trySend(std::span<const std::byte> message) override { return _channel->trySendData(message); }
    Status send(std::span<const std::byte> message) override { return _channel->sendData(message); }
    void reportProblem(const std::string& text) override;

    // SessionHeap::ExitObserver, on the heap collector's thread.
    void onHeapExiting(HeapView& heap) override;
    void onHeapEnded(pid_t pid) override;

    const Ref<ServiceChannel> _channel;
    SessionHeap& _heap; // the worker's; outlives the connection
    AccessGuard& _guard; // likewise
    bool _reportsCompletion = false;
    std::atomic<pid_t> _exited{0}; ///< whose search at its exit was begun

    Mutex _lock;
    orphans::ResultWriter _writer VNT_GUARDED_BY(_lock);
    bool _told VNT_GUARDED_BY(_lock) = false; ///< something stands in the recording
    std::thread _exitSearch VNT_GUARDED_BY(_lock); ///< judges what stood in the target at its exit
};

} // namespace vnt
