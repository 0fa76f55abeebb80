#include "collectors/kernel/KernelTracer.h"

#include <poll.h>
#include <time.h>

#include <atomic>
#include <optional>
#include <thread>

#include "collectors/common/perf.h"
#include "collectors/kernel/EventSource.h"
#include "collectors/kernel/TraceAssembler.h"
#include "collectors/kernel/TracePlan.h"
#include "collectors/kernel/TraceWindow.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr uint64_t kCostIntervalNs = 1'000'000'000;

uint64_t threadCpuNs()
{
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<uint64_t>(used.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(used.tv_nsec);
}

/// What a tracer is made of, in the order it is opened.
struct Parts {
    TraceFs files;
    std::unique_ptr<std::vector<Tracepoint>> tracepoints; ///< where sources may refer to it
    std::unique_ptr<EventSource> source;
    UniqueFd wake; ///< eventfd: a request is there
};

class RunningTracer final : public KernelTracer {
public:
    RunningTracer(const KernelTracerOptions& options, Parts parts, RecordSink& sink, ProcessObserver* observer)
        : _parts(std::move(parts)),
          _window(options.windowNs == 0 ? nullptr : std::make_unique<TraceWindow>(options.windowNs, sink)),
          _assembler(settings(options, *_parts.source), *_parts.tracepoints, _parts.files, _window ? *_window : sink,
                     observer)
    {
    }
    ~RunningTracer() override { (void)end(Request::kQuit); } // nobody is left to tell

    Status begin(const KernelTracerOptions& options);
    Status pause() override;
    Status unpause() override;
    Status stop() override { return end(Request::kStop); }

private:
    enum class Request { kNone, kFlush, kStop, kQuit };

    static TraceAssembler::Settings settings(const KernelTracerOptions& options, const EventSource& source);
    Status end(Request request);
    Status ask(Request request);
    void run();
    void pass();
    Status deliver(Request request);
    Request takeRequest();
    void answer(const Status& status);

    Parts _parts;
    std::unique_ptr<TraceWindow> _window; ///< null without a window
    TraceAssembler _assembler;
    uint64_t _passBeganNs = 0; ///< the latest one
    uint64_t _lastCostNs = 0;

    Mutex _mutex;
    Condition _answered;
    Request _request VNT_GUARDED_BY(_mutex) = Request::kNone;
    std::optional<Status> _answer VNT_GUARDED_BY(_mutex);
    std::thread _reader; // keep last: it uses everything above
    bool _recording = false;
};

TraceAssembler::Settings RunningTracer::settings(const KernelTracerOptions& options, const EventSource& source)
{
    TraceAssembler::Settings result;
    trace::SessionRecord& session = result.session;
    if (options.userStacks)
        session.flags |= trace::SessionRecord::kUserStacks;
    if (options.kernelStacks)
        session.flags |= trace::SessionRecord::kKernelStacks;
    if (options.allProcesses)
        session.flags |= trace::SessionRecord::kAllProcesses;
    else
        session.pid = static_cast<uint32_t>(options.pid);
    if (source.isFiltered())
        session.flags |= trace::SessionRecord::kKernelProgram;
    session.windowNs = options.windowNs;
    session.maxFrames = traceFramesAsked(options);
    result.filters = !options.allProcesses && !source.isFiltered();
    result.sameNumbers = perf::seesKernelProcessIds();
    return result;
}

Status RunningTracer::begin(const KernelTracerOptions& options)
{
    if (!options.allProcesses) {
        // Threads and children that begin from here on are told by the process records; those between two looks are
        // made by threads that the first look found.
        bool any = false;
        for (int look = 0; look < 2; ++look) {
            const std::vector<TaskIds> family = threadsOfFamily(options.pid);
            any = !family.empty();
            for (const TaskIds& task : family)
                _assembler.addTask(task);
        }
        if (!any)
            return Status(Code::kNotFound, "there is no process " + std::to_string(options.pid));
    }
    RETURN_IF_ERROR(_parts.source->enable());
    _recording = true;
    _passBeganNs = sys::monotonicNs();
    const sys::SignalBlock block;
    _reader = std::thread([this] { run(); });
    return {};
}

/// Reads everything once. What happened before the pass before this one began is whole now: an event that was being
/// written then has been read.
void RunningTracer::pass()
{
    const uint64_t settledNs = std::exchange(_passBeganNs, sys::monotonicNs());
    _parts.source->drain(_assembler);
    if (_window)
        _assembler.onLost(trace::LostCause::kWindowFull, _window->takePushedOut());
    _assembler.onSettled(settledNs);
}

void RunningTracer::run()
{
    std::vector<struct pollfd> fds{{_parts.wake.get(), POLLIN, 0}};
    _parts.source->appendPollFds(fds);
    for (;;) {
        if (!sys::pollFds(fds, _parts.source->drainInterval()).ok())
            fds.resize(1); // without the rings' word, the interval alone wakes us
        for (size_t i = fds.size(); i-- > 1;) {
            if (fds[i].revents & (POLLERR | POLLHUP | POLLNVAL)) // would return at once for ever
                fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
        }
        const Request request = takeRequest();
        if (request == Request::kQuit)
            return;
        pass();
        if (request != Request::kNone)
            pass(); // so that everything is settled
        const Status status = deliver(request);
        if (request != Request::kNone)
            answer(status);
        if (request == Request::kStop)
            return;
    }
}

Status RunningTracer::deliver(Request request)
{
    const uint64_t nowNs = sys::monotonicNs();
    const bool isLast = request != Request::kNone;
    const bool showsCost = isLast || nowNs - _lastCostNs > kCostIntervalNs;
    if (showsCost)
        _lastCostNs = nowNs;
    if (isLast)
        _assembler.repeatLosses(); // a window may have forgotten them
    const auto wait = isLast ? TraceAssembler::Wait::kForRoom : TraceAssembler::Wait::kNo;
    Status status = _assembler.flush(wait, showsCost ? threadCpuNs() : 0);
    if (!_window)
        return status;
    if (isLast)
        status = _window->flush(nowNs);
    if (isLast || _window->wantsGeneration(nowNs))
        _assembler.renewGeneration();
    return status;
}

RunningTracer::Request RunningTracer::takeRequest()
{
    MutexLock lock(_mutex);
    const Request request = std::exchange(_request, Request::kNone);
    if (request != Request::kNone) {
        uint64_t count = 0;
        (void)sys::readSome(_parts.wake.get(), &count, sizeof count); // not blocking; what it counts does not matter
    }
    return request;
}

void RunningTracer::answer(const Status& status)
{
    MutexLock lock(_mutex);
    _answer = status;
    _answered.notifyAll();
}

/// Waits without limit: the reader thread always answers, and a sink waits no longer than its reader lives.
Status RunningTracer::ask(Request request)
{
    MutexLock lock(_mutex);
    _answer.reset();
    _request = request;
    const uint64_t one = 1;
    RETURN_IF_ERROR(sys::writeFully(_parts.wake.get(), &one, sizeof one));
    while (!_answer)
        _answered.wait(lock);
    return *_answer;
}

Status RunningTracer::pause()
{
    if (!_reader.joinable() || !_recording)
        return {};
    _recording = false;
    const Status disabled = _parts.source->disable();
    const Status sent = ask(Request::kFlush);
    return disabled.ok() ? sent : disabled;
}

Status RunningTracer::unpause()
{
    if (!_reader.joinable() || _recording)
        return {};
    _recording = true;
    return _parts.source->enable();
}

Status RunningTracer::end(Request request)
{
    if (!_reader.joinable())
        return {};
    (void)_parts.source->disable(); // closing it follows
    Status status;
    if (request == Request::kStop) {
        status = ask(request);
    } else {
        MutexLock lock(_mutex);
        _request = request;
        const uint64_t one = 1;
        VNT_CHECK(sys::writeFully(_parts.wake.get(), &one, sizeof one).ok());
    }
    _reader.join();
    return status;
}

} // namespace

static Result<std::unique_ptr<EventSource>> openSource(const KernelTracerOptions& options, const Parts& parts)
{
    if (options.path != KernelTracerOptions::Path::kPerf) {
        auto source = openProgramSource(options, parts.files, *parts.tracepoints);
        if (source.ok() || options.path == KernelTracerOptions::Path::kProgram)
            return source;
    }
    return openPerfSource(options, *parts.tracepoints);
}

Result<std::unique_ptr<KernelTracer>> KernelTracer::start(const KernelTracerOptions& options, RecordSink& sink,
                                                          ProcessObserver* observer)
{
    RETURN_IF_ERROR(checkOptions(options));
    ASSIGN_OR_RETURN(TraceFs files, TraceFs::open(options.traceFiles));
    ASSIGN_OR_RETURN(std::vector<Tracepoint> tracepoints, loadTracepoints(files, options.classes));
    ASSIGN_OR_RETURN(UniqueFd wake, sys::makeEventFd());
    Parts parts{std::move(files), std::make_unique<std::vector<Tracepoint>>(std::move(tracepoints)), nullptr,
                std::move(wake)};
    ASSIGN_OR_RETURN(parts.source, openSource(options, parts));
    auto tracer = std::make_unique<RunningTracer>(options, std::move(parts), sink, observer);
    RETURN_IF_ERROR(tracer->begin(options));
    if (!options.allProcesses && !perf::seesKernelProcessIds())
        sink.reportProblem("within a container, wake-ups and switches by which others give the target's threads a "
                           "processor are not recorded: threads have other numbers there; record from outside it");
    return std::unique_ptr<KernelTracer>(std::move(tracer));
}

} // namespace vnt
