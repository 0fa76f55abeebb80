#include "services/quillon/RemoteOrphansService.h"

#include "platform/base/sys.h"
#include "services/common/ProcFs.h"
#include "services/quillon/Arguments.h"
#include "services/quillon/Completion.h"

namespace vnt {
namespace {

constexpr std::string_view kServiceName = "quillon.server.services.remoteorphans";

bool boolArgument(const Array& arguments, size_t index)
{
    const auto* number = index < arguments.count() ? as<Number>(arguments.at(index).get()) : nullptr;
    return number && number->boolValue(); // absent: no
}

Exception failure(const std::string& text) { return Exception("VntOrphanError", text); }

} // namespace

RemoteOrphansService::RemoteOrphansService(Ref<ServiceChannel> channel, SessionHeap& heap, AccessGuard& guard)
    : _channel(std::move(channel)),
      _heap(heap),
      _guard(guard),
      _writer(*this)
{
    _heap.setExitObserver(this);
}

RemoteOrphansService::~RemoteOrphansService() { onClose(); }

Ref<Object> RemoteOrphansService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector == "requestLeaksForPid:context:provideBacktraces:")
        requestLeaks(*arguments);
    else if (selector == "cancelAllRequests")
        cancelAllRequests();
    else if (selector == kEnableCompletion)
        _reportsCompletion = true;
    else
        throwUnknownSelector(selector);
    return nullptr;
}

void RemoteOrphansService::requestLeaks(const Array& arguments)
{
    const pid_t asked = pidArgument(arguments, 0);
    settleExit();
    HeapCollector* collector = _heap.collector();
    const pid_t target = collector ? collector->targetPid() : 0;
    if (target == 0)
        throw failure("process " + std::to_string(asked)
                      + " has no heap journal, without which its blocks are not known; launch the program with the "
                        "Heap Recorder, and not as a static or setuid one");
    if (_exited.load() == target)
        return; // its leaks were told when it ended
    _guard.demand(target, AccessGuard::Reach::kAnalyse);
    orphans::OrphanSearch search({.stacks = boolArgument(arguments, 2), .contents = boolArgument(arguments, 1)});
    Status looked;
    if (!collector->inspect([&](HeapView& heap) { looked = search.look(heap); }))
        throw failure("process " + std::to_string(target) + " has ended");
    if (!looked.ok())
        throw failure(looked.message());
    tell(search.judge());
    reportComplete();
}

/// Nothing is under way when this comes, requests being answered in order, but the search at the target's exit, which
/// belongs into what is about to be saved.
void RemoteOrphansService::cancelAllRequests()
{
    settleExit();
    const pid_t target = _heap.collector() ? _heap.collector()->targetPid() : 0;
    if (target == 0)
        tellNotSearched(0,
                        "the target has no heap journal: it is static, runs with another user's privilege, or was "
                        "not launched with the Heap Recorder");
    else if (!procfs::isRunning(target))
        onHeapEnded(target);
    reportComplete();
}

/// If the target is being looked into at its exit, waits until the result is told. Control thread.
void RemoteOrphansService::settleExit()
{
    if (HeapCollector* collector = _heap.collector()) // whatever its thread is at, it is through with it afterwards
        (void)collector->withLiveBlocks([](const LiveBlocks&, const HeapStacks&) {});
    awaitExitSearch();
}

void RemoteOrphansService::awaitExitSearch()
{
    std::thread running;
    {
        MutexLock lock(_lock);
        running.swap(_exitSearch);
    }
    if (running.joinable())
        running.join();
}

void RemoteOrphansService::tell(const orphans::OrphanResult& result)
{
    MutexLock lock(_lock);
    _told = true;
    (void)_writer.write(result); // fails only when the client is gone, which then needs none
}

/// Unless there is a result.
void RemoteOrphansService::tellNotSearched(pid_t pid, const std::string& reason)
{
    MutexLock lock(_lock);
    if (!std::exchange(_told, true))
        (void)_writer.writeNotSearched(sys::monotonicNs(), pid, reason); // as above
}

void RemoteOrphansService::onHeapExiting(HeapView& heap)
{
    _exited.store(heap.pid());
    // What the client wants is asked for at its stop only, and comes too late: stacks are harmless, contents are not.
    auto search = std::make_unique<orphans::OrphanSearch>(
        orphans::OrphanSearch::Options{.stacks = true, .contents = _heap.contentsAtExit(), .atExit = true});
    const Status looked = search->look(heap);
    if (!looked.ok())
        return tellNotSearched(heap.pid(), looked.message());
    awaitExitSearch();
    MutexLock lock(_lock);
    const sys::SignalBlock block;
    _exitSearch = std::thread([this, search = std::move(search)] { tell(search->judge()); });
}

void RemoteOrphansService::onHeapEnded(pid_t pid)
{
    if (_exited.load() != pid)
        tellNotSearched(pid,
                        "process " + std::to_string(pid)
                            + " ended by a signal or without running its exit handlers: there was no moment to search "
                              "it");
}

void RemoteOrphansService::reportComplete()
{
    if (_reportsCompletion)
        sendCompletion(*_channel, kServiceName);
}

void RemoteOrphansService::reportProblem(const std::string& text)
{
    (void)_channel->sendException(failure("Orphan Finder: " + text)); // a client that is gone needs none
}

void RemoteOrphansService::onClose()
{
    _heap.setExitObserver(nullptr);
    awaitExitSearch();
}

} // namespace vnt
