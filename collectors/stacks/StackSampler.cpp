#include "collectors/stacks/StackSampler.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <optional>
#include <thread>

#include "collectors/stacks/EventSet.h"
#include "collectors/stacks/SampleAssembler.h"
#include "collectors/stacks/StackWindow.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

// Without a watermark reached. A live reader sees samples this late, and the processor sleeps this long undisturbed.
constexpr std::chrono::milliseconds kDrainInterval{100};
// At first sooner, then each time twice as long: how much of a stack is needed shows in the first samples.
constexpr std::chrono::milliseconds kFirstDrainInterval{10};
constexpr uint64_t kCostIntervalNs = 1'000'000'000;

uint64_t threadCpuNs()
{
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<uint64_t>(used.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(used.tv_nsec);
}

/// Of a thread's directory in /proc: the thread is gone, or left as a zombie (proc(5)).
bool hasEnded(const std::string& directory)
{
    const auto stat = sys::readFile(directory + "/stat", 4096);
    const size_t end = stat.ok() ? stat.value().rfind(") ") : std::string::npos;
    return end == std::string::npos || end + 2 >= stat.value().size() || stat.value()[end + 2] == 'Z'
        || stat.value()[end + 2] == 'X';
}

class PerfStackSampler final : public StackSampler {
public:
    PerfStackSampler(const StackSamplerOptions& options, EventSet events, UniqueFd wake, RecordSink& sink,
                     ProcessObserver* observer)
        : _events(std::move(events)),
          _wake(std::move(wake)),
          _window(windowFor(options, _events, sink)),
          _assembler(settings(options, _events), _window ? *_window : sink, observer),
          _options(options),
          _recordsWaiting(recordsWaiting(options)),
          _pid(options.allProcesses ? 0 : options.pid)
    {
    }
    ~PerfStackSampler() override { (void)end(Request::kQuit); } // nobody is left to tell

    Status begin();
    Status pause() override;
    Status unpause() override;
    Status stop() override { return end(Request::kStop); }

private:
    enum class Request { kNone, kFlush, kStop, kQuit };

    static SampleAssembler::Settings settings(const StackSamplerOptions& options, const EventSet& events);
    static std::unique_ptr<StackWindow> windowFor(const StackSamplerOptions& options, const EventSet& events,
                                                  RecordSink& sink);
    Status end(Request request);
    Status setEnabled(bool enabled);
    Status ask(Request request, uint64_t atNs);
    void run();
    void drain();
    bool fitDumps();
    void recordWaits(Request request, uint64_t readUntilNs, uint64_t atNs);
    Status turnWindow(Request request, uint64_t atNs);
    Request takeRequest(uint64_t& atNs);
    void answer(const Status& status);

    /// Taken to open, enable and disable events; draining needs none, as it is the reader alone that opens them anew.
    Mutex _eventsLock;
    EventSet _events;
    UniqueFd _wake; ///< eventfd: a request is there
    std::unique_ptr<StackWindow> _window; ///< null without a window
    SampleAssembler _assembler;
    const StackSamplerOptions _options;
    const bool _recordsWaiting;
    const pid_t _pid; ///< 0: not one process
    std::atomic<uint64_t> _beganNs{0}; ///< when sampling was last switched on
    uint64_t _lastCostNs = 0;
    bool _fitsDumps = true;
    size_t _ringTried = 0;

    Mutex _mutex;
    Condition _answered;
    Request _request VNT_GUARDED_BY(_mutex) = Request::kNone;
    uint64_t _requestNs VNT_GUARDED_BY(_mutex) = 0; ///< when sampling was to end: where a window ends
    std::optional<Status> _answer VNT_GUARDED_BY(_mutex);
    std::thread _reader; // keep last: it uses everything above
    bool _sampling = false;
};

SampleAssembler::Settings PerfStackSampler::settings(const StackSamplerOptions& options, const EventSet& events)
{
    const KernelOffer& offer = events.offer();
    SampleAssembler::Settings result;
    result.onlyPid = options.allProcesses ? 0 : options.pid;
    if (result.onlyPid > 0)
        result.family = events.family();
    result.maxFrames = framesAsked(options, offer);
    result.session.intervalNs = options.intervalNs;
    result.session.windowNs = options.windowNs;
    const bool kernelOnly = samplesKernelOnly(options);
    if (options.userStacks && !kernelOnly)
        result.session.flags |= stacks::SessionRecord::kUserStacks;
    if ((options.kernelStacks || kernelOnly) && offer.kernelMode)
        result.session.flags |= stacks::SessionRecord::kKernelStacks;
    if (recordsWaiting(options))
        result.session.flags |= stacks::SessionRecord::kBlockedThreads;
    result.clockEvents = &events.clockEvents();
    result.dumpRingBytes = offer.dumpBytes != 0 ? events.ringBytes() : 0;
    if (!offer.kernelMode)
        result.session.flags |= stacks::SessionRecord::kUserModeOnly;
    return result;
}

std::unique_ptr<StackWindow> PerfStackSampler::windowFor(const StackSamplerOptions& options, const EventSet& events,
                                                         RecordSink& sink)
{
    if (options.windowNs == 0)
        return nullptr;
    return std::make_unique<StackWindow>(settings(options, events).session, sink);
}

Status PerfStackSampler::begin()
{
    _beganNs = sys::monotonicNs();
    RETURN_IF_ERROR(_events.enable());
    RETURN_IF_ERROR(
        _events.followNewThreads([this](const perf_event_header& header, std::span<const std::byte> payload) {
            _assembler.onRecord(header, payload);
        }));
    _sampling = true;
    const sys::SignalBlock block;
    _reader = std::thread([this] { run(); });
    return {};
}

void PerfStackSampler::drain()
{
    _events.drain([this](const perf_event_header& header,
                         std::span<const std::byte> payload) { _assembler.onRecord(header, payload); },
                  [this] { _assembler.onDeadRing(); });
}

/// Lets samples bring as much of the stack as they turn out to need, into rings that hold enough of them. True: `fds`
/// of rings are others now.
bool PerfStackSampler::fitDumps()
{
    DumpSize* const size = _fitsDumps ? _assembler.dumpSize() : nullptr;
    if (!size)
        return false;
    const bool changed = size->review();
    const size_t ringBefore = _events.ringBytes();
    const size_t ring = size->isKnown() ? ringBytes(_options, size->bytes()) : 0;
    if (!changed && (ring <= ringBefore || ring <= _ringTried))
        return false;
    _ringTried = std::max(_ringTried, ring); // refused once is refused again
    MutexLock lock(_eventsLock);
    const Status status =
        _events.renew(size->bytes(), ring, [this](const perf_event_header& header, std::span<const std::byte> payload) {
            _assembler.onRecord(header, payload);
        });
    // As before then; the limit of descriptors is the likely reason, and trying again would not help.
    _fitsDumps = status.ok();
    return _events.ringBytes() != ringBefore;
}

void PerfStackSampler::run()
{
    std::vector<struct pollfd> fds{{_wake.get(), POLLIN, 0}};
    _events.appendPollFds(fds);
    for (auto interval = kFirstDrainInterval;; interval = std::min(2 * interval, kDrainInterval)) {
        if (!sys::pollFds(fds, interval).ok())
            fds.resize(1); // without the rings' word, the interval alone wakes us
        for (size_t i = fds.size(); i-- > 1;) {
            if (fds[i].revents & (POLLERR | POLLHUP | POLLNVAL)) // would return at once for ever
                fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
        }
        uint64_t atNs = 0;
        const Request request = takeRequest(atNs);
        if (request == Request::kQuit)
            return;
        const uint64_t readUntilNs = sys::monotonicNs();
        drain();
        if (fitDumps()) {
            fds.resize(1);
            _events.appendPollFds(fds);
        }
        if (_recordsWaiting)
            recordWaits(request, readUntilNs, atNs);
        const uint64_t cpuNs = threadCpuNs();
        const bool showCost = request != Request::kNone || sys::monotonicNs() - _lastCostNs > kCostIntervalNs;
        if (showCost)
            _lastCostNs = sys::monotonicNs();
        const auto wait = request == Request::kNone ? SampleAssembler::Wait::kNo : SampleAssembler::Wait::kForRoom;
        Status status = _assembler.flush(wait, showCost ? cpuNs : 0);
        if (_window)
            status = turnWindow(request, atNs);
        if (request != Request::kNone)
            answer(status);
        if (request == Request::kStop)
            return;
    }
}

void PerfStackSampler::recordWaits(Request request, uint64_t readUntilNs, uint64_t atNs)
{
    const uint64_t beganNs = _beganNs.load(std::memory_order_relaxed); // the events it dates come through the kernel
    if (request == Request::kNone) {
        _assembler.settleWaits(beganNs, readUntilNs);
        return;
    }
    std::vector<uint32_t> threads;
    if (auto names = sys::listDirectory("/proc/" + std::to_string(_pid) + "/task"); _pid > 0 && names.ok()) {
        for (const std::string& name : names.value()) {
            if (!hasEnded("/proc/" + std::to_string(_pid) + "/task/" + name))
                threads.push_back(static_cast<uint32_t>(std::strtoul(name.c_str(), nullptr, 10)));
        }
    }
    _assembler.finishWaits(beganNs, atNs, threads);
}

Status PerfStackSampler::turnWindow(Request request, uint64_t atNs)
{
    Status status;
    if (request != Request::kNone)
        status = _window->flush(atNs);
    if (request != Request::kNone || _window->wantsGeneration(sys::monotonicNs()))
        _assembler.renewGeneration();
    return status;
}

PerfStackSampler::Request PerfStackSampler::takeRequest(uint64_t& atNs)
{
    MutexLock lock(_mutex);
    atNs = _requestNs;
    const Request request = std::exchange(_request, Request::kNone);
    if (request != Request::kNone) {
        uint64_t count = 0;
        (void)sys::readSome(_wake.get(), &count, sizeof count); // not blocking; what it counts does not matter
    }
    return request;
}

void PerfStackSampler::answer(const Status& status)
{
    MutexLock lock(_mutex);
    _answer = status;
    _answered.notifyAll();
}

/// Waits without limit: the reader thread always answers, and a sink waits no longer than its reader lives.
Status PerfStackSampler::ask(Request request, uint64_t atNs)
{
    MutexLock lock(_mutex);
    _requestNs = atNs;
    _answer.reset();
    _request = request;
    const uint64_t one = 1;
    RETURN_IF_ERROR(sys::writeFully(_wake.get(), &one, sizeof one));
    while (!_answer)
        _answered.wait(lock);
    return *_answer;
}

Status PerfStackSampler::pause()
{
    if (!_reader.joinable() || !_sampling)
        return {};
    _sampling = false;
    const uint64_t nowNs = sys::monotonicNs();
    const Status disabled = setEnabled(false);
    const Status sent = ask(Request::kFlush, nowNs);
    return disabled.ok() ? sent : disabled;
}

Status PerfStackSampler::unpause()
{
    if (!_reader.joinable() || _sampling)
        return {};
    _sampling = true;
    _beganNs = sys::monotonicNs();
    return setEnabled(true);
}

Status PerfStackSampler::setEnabled(bool enabled)
{
    MutexLock lock(_eventsLock);
    return enabled ? _events.enable() : _events.disable();
}

Status PerfStackSampler::end(Request request)
{
    if (!_reader.joinable())
        return {};
    const uint64_t nowNs = sys::monotonicNs();
    (void)setEnabled(false); // closing them follows
    Status status;
    if (request == Request::kStop) {
        status = ask(request, nowNs);
    } else {
        MutexLock lock(_mutex);
        _request = request;
        const uint64_t one = 1;
        VNT_CHECK(sys::writeFully(_wake.get(), &one, sizeof one).ok());
    }
    _reader.join();
    _events.close();
    return status;
}

} // namespace

Result<std::unique_ptr<StackSampler>> startStackSampler(const StackSamplerOptions& options, RecordSink& sink,
                                                        ProcessObserver* observer, const Placement* wanted)
{
    ASSIGN_OR_RETURN(EventSet events, EventSet::open(options, wanted));
    ASSIGN_OR_RETURN(UniqueFd wake, sys::makeEventFd());
    if (options.kernelStacks && !events.offer().kernelMode)
        sink.reportProblem(
            "kernel stacks are not recorded: not allowed here; run: sudo sysctl kernel.perf_event_paranoid=1");
    if (options.allThreadStates && !recordsWaiting(options))
        sink.reportProblem("the kernel alone has no threads that wait; only what runs is recorded");
    else if (options.allThreadStates && !events.offer().kernelMode)
        sink.reportProblem("where threads wait is not recorded, only how long: the stacks are not allowed here; "
                           "run: sudo sysctl kernel.perf_event_paranoid=1");
    auto sampler = std::make_unique<PerfStackSampler>(options, std::move(events), std::move(wake), sink, observer);
    RETURN_IF_ERROR(sampler->begin());
    return std::unique_ptr<StackSampler>(std::move(sampler));
}

Result<std::unique_ptr<StackSampler>> StackSampler::start(const StackSamplerOptions& options, RecordSink& sink,
                                                          ProcessObserver* observer)
{
    return startStackSampler(options, sink, observer, nullptr);
}

} // namespace vnt
