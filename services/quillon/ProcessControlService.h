#pragma once

#include <map>
#include <set>
#include <thread>

#include "platform/base/Mutex.h"
#include "platform/base/UniqueFd.h"
#include "platform/messagequeue/MessageQueueServer.h"
#include "services/quillon/AccessGuard.h"
#include "services/quillon/TargetSuspender.h"

namespace vnt {

/// "quillon.server.services.processcontrol": observes, suspends, resumes and kills processes, by pidfd throughout, so
/// that no signal ever reaches a recycled pid. Pids of 0 or less and the client's own process are answered as success
/// and never signalled. When the service closes, what it suspended runs again.
class ProcessControlService final : public MessageQueueService {
public:
    ProcessControlService(Ref<ServiceChannel> channel, pid_t clientPid, AccessGuard& guard);
    ~ProcessControlService() override;

    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;
    void onClose() override;

private:
    void startObserving(pid_t pid);
    void stopObserving(pid_t pid);
    void suspend(pid_t pid);
    void resume(pid_t pid);
    void kill(pid_t pid);
    void signal(pid_t pid, int number);
    [[nodiscard]] bool untouchable(pid_t pid) const { return pid <= 0 || pid == _clientPid; }
    /// The pidfd kept for `pid` from the first request about it. Throws Exception when there is no such process.
    int pidFdOf(pid_t pid);
    void observe();
    void wakeObserver();

    const Ref<ServiceChannel> _channel;
    const pid_t _clientPid;
    AccessGuard& _guard; // the worker's; outlives the connection
    std::map<pid_t, UniqueFd> _pidFds; // control thread only
    std::set<pid_t> _stoppedBySignal; // control thread only
    std::set<pid_t> _stoppedBefore; // control thread only: in a stop that is not ours
    TargetSuspender _suspender;

    Mutex _lock;
    std::map<pid_t, UniqueFd> _observed VNT_GUARDED_BY(_lock); // pid -> own duplicate of its pidfd
    bool _quit VNT_GUARDED_BY(_lock) = false;
    UniqueFd _wake; // eventfd: _observed or _quit has changed
    std::thread _observer;
};

} // namespace vnt
