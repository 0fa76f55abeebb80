#include "collectors/heap/HeapCollector.h"

#include <sys/eventfd.h>

#include <atomic>
#include <ctime>
#include <deque>
#include <optional>
#include <thread>

#include "collectors/heap/Greeter.h"
#include "collectors/heap/HeapRecording.h"
#include "collectors/heap/JournalInjection.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

/// How far a thread's reading of the clock may be behind the moment its mark becomes visible: a store leaves the
/// processor within a microsecond.
constexpr uint64_t kMarginNs = 20'000;
constexpr uint64_t kBusyPauseNs = 200'000; // a ring lasts some milliseconds at the highest rates
constexpr uint64_t kIdlePauseNs = 10'000'000; // a quarter-full ring wakes us earlier
constexpr std::chrono::milliseconds kNoTargetPause{250};
constexpr uint64_t kFlushIntervalNs = 100'000'000;
constexpr uint64_t kHouseworkIntervalNs = 100'000'000;
/// Of a tenth of a second each: a program greets within a few milliseconds of its start.
constexpr int kLooksForGreeting = 3;
constexpr int kTriesToWithdraw = 20; // another thread of this session may hold the target still for a moment
constexpr std::chrono::milliseconds kTryInterval{100};
constexpr uint64_t kCostIntervalNs = 1'000'000'000;

uint64_t threadCpuNs()
{
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<uint64_t>(used.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(used.tv_nsec);
}

class JournalCollector final : public HeapCollector, private HeapView {
public:
    JournalCollector(const HeapCollectorOptions& options, RecordSink& sink, HeapTargetObserver& observer)
        : _sink(sink),
          _observer(observer),
          _identifiesClasses((options.eventsMask & journal::kClassNames) != 0),
          _recording(options.eventsMask, _scale, sink)
    {
    }
    ~JournalCollector() override;
    Status begin(const HeapCollectorOptions& options);
    Status beginAttached(const HeapCollectorOptions& options, pid_t pid);

    std::string socketName() const override { return _greeter ? _greeter->socketName() : std::string(); }
    void startCollection() override;
    Status stopCollection() override;
    bool withLiveBlocks(const std::function<void(const LiveBlocks&, const HeapStacks&)>& look) override;
    bool inspect(const std::function<void(HeapView&)>& look) override;
    pid_t targetPid() const override { return _pid.load(); }

private:
    // HeapView, while there is a target; on the collector's thread.
    pid_t pid() const override { return _reader->pid(); }
    bool is32Bit() const override { return (_recording.target().flags & heap::TargetRecord::k32Bit) != 0; }
    const std::string& name() const override { return _recording.target().name; }
    const LiveBlocks& blocks() const override { return _recording.blocks(); }
    const HeapStacks& stacks() const override { return _recording.stacks(); }
    void drainStopped() override { _reader->drainStopped(_scale.advance(), _recording.stacks(), _recording); }
    std::vector<uint64_t> reallocating() const override { return _recording.reallocating(); }
    bool knowsAllBlocks() const override { return _attachedPid == 0; } // a launch loads it first of all
    uint64_t lostEvents() const override;
    bool identifiesClasses() const override { return _identifiesClasses; }

    Status startThread();
    uint32_t journalFlags(const HeapCollectorOptions& options) const;
    void withdraw();
    void onGreeting(Greeting greeting);
    void ask(const std::function<void()>& request);
    void run();
    void turn();
    bool answerRequest();
    void takeGreetings();
    bool drain();
    void drainUntilNow();
    void housework(uint64_t nowNs);
    void watchProgram();
    void endTarget(bool replaced);
    void collectLosses();
    void identifyClasses();
    void pause(bool more);

    RecordSink& _sink;
    HeapTargetObserver& _observer;
    const bool _identifiesClasses;
    TimeScale _scale;
    HeapRecording _recording;
    std::unique_ptr<JournalReader> _reader; ///< null: no target now
    UniqueFd _pidFd;
    uint64_t _lostBefore[heap::kLostCauses] = {}; ///< of programs before an exec
    uint64_t _lastFlushNs = 0;
    uint64_t _lastHouseworkNs = 0;
    uint64_t _lastCostNs = 0;
    bool _toldOff = false;
    std::optional<ProgramIdentity> _program; ///< what the target executes
    int _changedLooks = 0; ///< at a target that executes another, without a greeting
    UniqueFd _wake; ///< eventfd: something came while there is no target
    std::atomic<pid_t> _pid{0};
    pid_t _attachedPid = 0; ///< 0: the target was launched

    Mutex _mutex;
    Condition _answered;
    std::deque<Greeting> _greetings VNT_GUARDED_BY(_mutex); ///< a program may exec before the first is looked at
    const std::function<void()>* _request VNT_GUARDED_BY(_mutex) = nullptr;
    bool _quit VNT_GUARDED_BY(_mutex) = false;
    std::thread _thread; // keep behind what it uses
    std::unique_ptr<Greeter> _greeter; // keep last: its thread calls into the rest
};

Status JournalCollector::startThread()
{
    ASSIGN_OR_RETURN(_wake, sys::makeEventFd());
    const sys::SignalBlock block;
    _thread = std::thread([this] { run(); });
    return {};
}

uint32_t JournalCollector::journalFlags(const HeapCollectorOptions& options) const
{
    return (_scale.usesTsc() ? journal::kClockIsTsc : 0u) | (options.keepZombies ? journal::kKeepZombies : 0u);
}

Status JournalCollector::begin(const HeapCollectorOptions& options)
{
    RETURN_IF_ERROR(startThread());
    Greeter::Options greeterOptions;
    greeterOptions.clientUid = options.clientUid;
    greeterOptions.eventsMask = options.eventsMask;
    greeterOptions.flags = journalFlags(options);
    ASSIGN_OR_RETURN(_greeter,
                     Greeter::start(greeterOptions, [this](Greeting greeting) { onGreeting(std::move(greeting)); }));
    return {};
}

Status JournalCollector::beginAttached(const HeapCollectorOptions& options, pid_t pid)
{
    Greeting greeting;
    if (auto process = sys::openPidFd(pid); process.ok())
        greeting.pidFd = process.take();
    const JournalInjection injection({options.journalDirectory, options.eventsMask, journalFlags(options)});
    ASSIGN_OR_RETURN(JournalAttachment attachment, injection.attach(pid));
    _attachedPid = pid;
    greeting.pid = pid;
    greeting.is32Bit = attachment.is32Bit;
    greeting.attached = true;
    greeting.timeNs = attachment.timeNs;
    greeting.name = nameOfProcess(pid);
    if (const auto program = programOf(pid); program.ok())
        greeting.program = program.value();
    greeting.reader = std::move(attachment.reader);
    RETURN_IF_ERROR(startThread());
    onGreeting(std::move(greeting));
    return {};
}

JournalCollector::~JournalCollector()
{
    _greeter = nullptr;
    if (_thread.joinable()) {
        {
            MutexLock lock(_mutex);
            _quit = true;
        }
        const uint64_t one = 1;
        VNT_CHECK(sys::writeFully(_wake.get(), &one, sizeof one).ok());
        _thread.join();
        takeGreetings(); // a target that was left as soon as it was attached to has not been looked at yet
    }
    if (_reader)
        _reader->switchOff();
    withdraw();
}

/// The target gets back what it had before. Where that cannot be done now (it is stopped, or held by a debugger), the
/// journal in it stays idle: it was told so.
void JournalCollector::withdraw()
{
    if (_attachedPid == 0 || !_reader)
        return;
    for (int i = 0; i < kTriesToWithdraw; ++i) {
        if (JournalInjection::detach(_attachedPid).code() != Code::kDenied)
            return;
        std::this_thread::sleep_for(kTryInterval);
    }
}

void JournalCollector::onGreeting(Greeting greeting)
{
    _pid.store(greeting.pid);
    _observer.onTargetStarted(greeting.timeNs, greeting.pid, greeting.name, greeting.again);
    MutexLock lock(_mutex);
    _greetings.push_back(std::move(greeting));
    const uint64_t one = 1;
    (void)sys::writeFully(_wake.get(), &one, sizeof one); // full: it is awake anyway
}

/// Runs `request` on the collector's thread, which looks for one at least every quarter of a second.
void JournalCollector::ask(const std::function<void()>& request)
{
    MutexLock lock(_mutex);
    while (_request) // another thread's
        _answered.wait(lock);
    _request = &request;
    const uint64_t one = 1;
    (void)sys::writeFully(_wake.get(), &one, sizeof one);
    while (_request == &request)
        _answered.wait(lock);
}

void JournalCollector::startCollection()
{
    ask([this] {
        drainUntilNow();
        _recording.startCollection(sys::monotonicNs());
    });
}

Status JournalCollector::stopCollection()
{
    Status status;
    ask([this, &status] {
        drainUntilNow();
        identifyClasses();
        collectLosses();
        status = _recording.stopCollection(sys::monotonicNs(), threadCpuNs());
    });
    return status;
}

bool JournalCollector::withLiveBlocks(const std::function<void(const LiveBlocks&, const HeapStacks&)>& look)
{
    bool looked = false;
    ask([this, &look, &looked] {
        if (_pid.load() == 0)
            return;
        drainUntilNow();
        look(_recording.blocks(), _recording.stacks());
        looked = true;
    });
    return looked;
}

bool JournalCollector::inspect(const std::function<void(HeapView&)>& look)
{
    bool looked = false;
    ask([this, &look, &looked] {
        if (!_reader)
            return;
        drainUntilNow();
        look(*this);
        looked = true;
    });
    return looked;
}

uint64_t JournalCollector::lostEvents() const
{
    uint64_t sum = 0;
    for (const auto cause :
         {heap::LostCause::kRingFull, heap::LostCause::kNoRing, heap::LostCause::kNested, heap::LostCause::kMalformed})
        sum += _reader->lost(cause);
    return sum;
}

void JournalCollector::run()
{
    for (;;) {
        {
            MutexLock lock(_mutex);
            if (_quit)
                return;
        }
        takeGreetings();
        const bool more = drain();
        (void)answerRequest();
        housework(sys::monotonicNs());
        pause(more);
    }
}

bool JournalCollector::answerRequest()
{
    const std::function<void()>* request = nullptr;
    {
        MutexLock lock(_mutex);
        request = _request;
    }
    if (!request)
        return false;
    takeGreetings(); // what reported itself before the request belongs before it
    (*request)();
    MutexLock lock(_mutex);
    _request = nullptr;
    _answered.notifyAll();
    return true;
}

void JournalCollector::takeGreetings()
{
    std::deque<Greeting> greetings;
    {
        MutexLock lock(_mutex);
        greetings.swap(_greetings);
    }
    for (Greeting& greeting : greetings) {
        if (_reader)
            endTarget(/*replaced=*/true); // by exec: what the old program wrote is all there
        _reader = std::move(greeting.reader);
        _pidFd = std::move(greeting.pidFd);
        heap::TargetRecord target;
        target.pid = static_cast<uint32_t>(greeting.pid);
        target.flags = (greeting.is32Bit ? uint32_t{heap::TargetRecord::k32Bit} : 0)
            | (greeting.attached ? uint32_t{heap::TargetRecord::kAttached} : 0);
        target.name = greeting.name;
        _recording.beginProgram(greeting.timeNs, target);
        _changedLooks = 0;
        _program = greeting.program;
    }
}

bool JournalCollector::drain()
{
    if (!_reader)
        return false;
    _reader->beat();
    const uint64_t nowTicks = _scale.advance();
    return _reader->drain(nowTicks, _scale.ticksOf(kMarginNs), _recording.stacks(), _recording);
}

/// Until everything that happened before the call is passed on.
void JournalCollector::drainUntilNow()
{
    if (!_reader)
        return;
    const uint64_t untilTicks = _scale.advance();
    const uint64_t deadlineNs = sys::monotonicNs() + 1'000'000'000;
    do {
        (void)drain();
    } while (_reader->horizonTicks() < untilTicks && sys::monotonicNs() < deadlineNs);
}

void JournalCollector::collectLosses()
{
    for (size_t i = 0; _reader && i < heap::kLostCauses; ++i) {
        const auto cause = static_cast<heap::LostCause>(i);
        if (cause != heap::LostCause::kBatchDropped && cause != heap::LostCause::kNoNode)
            _recording.noteLost(cause, _lostBefore[i] + _reader->lost(cause));
    }
}

/// A look at the live blocks as the target has them now: at the end of collection, or of the target itself. A target
/// that ends by a signal has taken its blocks with it.
void JournalCollector::identifyClasses()
{
    if (!_identifiesClasses || !_reader || !_recording.isCollecting())
        return;
    const auto look = lookAtClasses(_reader->pid(), is32Bit(), _recording.blocks());
    if (look.ok()) {
        _observer.onNewCode(_reader->pid()); // of modules that did not allocate yet
        _recording.recordClasses(sys::monotonicNs(), look.value());
    } else if (look.code() != Code::kNotFound) {
        _sink.reportProblem("the classes of the target's blocks are not known: " + look.status().message());
    }
}

void JournalCollector::housework(uint64_t nowNs)
{
    if (_reader && _reader->exitAsked()) {
        drainUntilNow();
        if (_recording.stacks().takeNewCode())
            _observer.onNewCode(_reader->pid());
        identifyClasses();
        _observer.onTargetExiting(*this);
        _reader->answerExit();
    }
    if (nowNs - _lastFlushNs >= kFlushIntervalNs) {
        _lastFlushNs = nowNs;
        collectLosses();
        const bool showCost = nowNs - _lastCostNs >= kCostIntervalNs;
        _lastCostNs = showCost ? nowNs : _lastCostNs;
        _recording.flush(/*all=*/true, showCost ? threadCpuNs() : 0);
    }
    if (!_reader || nowNs - _lastHouseworkNs < kHouseworkIntervalNs)
        return;
    _lastHouseworkNs = nowNs;
    if (_reader->isOff() && !std::exchange(_toldOff, true))
        _sink.reportProblem("the target gave up recording: nothing was read from it for seconds");
    if (_recording.stacks().takeNewCode())
        _observer.onNewCode(_reader->pid());
    struct pollfd end[] = {{_pidFd.get(), POLLIN, 0}};
    const auto ended = sys::pollFds(end, std::chrono::milliseconds(0));
    if (ended.ok() && ended.value() > 0)
        endTarget(/*replaced=*/false);
    else
        watchProgram();
}

/// A target that executes a program without the journal (static, setuid, another environment) says nothing more.
void JournalCollector::watchProgram()
{
    const pid_t pid = _reader->pid();
    const auto program = programOf(pid);
    const bool changed =
        _program && (program.ok() ? _program->isOther(program.value()) : program.code() == Code::kDenied);
    _changedLooks = changed ? _changedLooks + 1 : 0;
    if (_changedLooks < kLooksForGreeting)
        return;
    endTarget(/*replaced=*/true);
    heap::TargetRecord target;
    target.pid = static_cast<uint32_t>(pid);
    target.flags = heap::TargetRecord::kNoJournal;
    _recording.beginProgram(sys::monotonicNs(), target);
    _sink.reportProblem(_attachedPid != 0 ? "the target executes another program now: attach to it anew to record that"
                                          : "the target executes another program now, which did not load the journal");
}

void JournalCollector::endTarget(bool replaced)
{
    (void)_scale.advance();
    _reader->drainToEnd(_recording.stacks(), _recording);
    collectLosses();
    for (size_t i = 0; i < heap::kLostCauses; ++i)
        _lostBefore[i] += _reader->lost(static_cast<heap::LostCause>(i));
    const pid_t pid = _reader->pid();
    _reader = nullptr;
    _pidFd.reset();
    if (replaced)
        return;
    _recording.endProgram(sys::monotonicNs(), static_cast<uint32_t>(pid));
    _recording.flush(/*all=*/true, threadCpuNs());
    _observer.onTargetEnded(pid);
}

void JournalCollector::pause(bool more)
{
    if (_reader) {
        _reader->sleep(more ? kBusyPauseNs : kIdlePauseNs);
        return;
    }
    struct pollfd wake[] = {{_wake.get(), POLLIN, 0}};
    (void)sys::pollFds(wake, kNoTargetPause);
    uint64_t count = 0;
    if (wake[0].revents != 0)
        (void)sys::readSome(_wake.get(), &count, sizeof count);
}

} // namespace

Result<std::unique_ptr<HeapCollector>> HeapCollector::start(const HeapCollectorOptions& options, RecordSink& sink,
                                                            HeapTargetObserver& observer)
{
    auto collector = std::make_unique<JournalCollector>(options, sink, observer);
    RETURN_IF_ERROR(collector->begin(options));
    return std::unique_ptr<HeapCollector>(std::move(collector));
}

Result<std::unique_ptr<HeapCollector>> HeapCollector::attach(const HeapCollectorOptions& options, pid_t pid,
                                                             RecordSink& sink, HeapTargetObserver& observer)
{
    auto collector = std::make_unique<JournalCollector>(options, sink, observer);
    RETURN_IF_ERROR(collector->beginAttached(options, pid));
    return std::unique_ptr<HeapCollector>(std::move(collector));
}

} // namespace vnt
