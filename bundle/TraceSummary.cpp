#include "bundle/TraceSummary.h"

#include <algorithm>

#include "bundle/TraceSummaryBuilder.h"

namespace vnt {

namespace {

// Past these, further ones are counted together: forged recordings only, or a machine's worth of short threads.
constexpr size_t kMaxThreads = 1u << 17;
constexpr size_t kMaxOffStacks = 1u << 16;
constexpr size_t kMaxNames = 1u << 14;

/// Bits of a task's state that mean it waits (sched(7)); the one above them marks a thread that was pushed aside.
constexpr uint64_t kWaits = 0xff;

uint64_t sumOf(const std::map<std::string, uint64_t>& counts)
{
    uint64_t sum = 0;
    for (const auto& [name, count] : counts)
        sum += count;
    return sum;
}

/// On its way off the processor a thread may still take interrupts and faults of the kernel, but makes no call.
bool showsRunning(trace::EventKind kind)
{
    return kind == trace::EventKind::kCallEnter || kind == trace::EventKind::kCallExit
        || kind == trace::EventKind::kSwitch;
}

} // namespace

uint64_t TraceSummary::events() const { return sumOf(byName); }
uint64_t TraceSummary::outsideEvents() const { return sumOf(outsideByName); }

void TraceSummaryBuilder::add(const TraceEvent& event)
{
    if (&event.definitions() != _definitions) {
        _definitions = &event.definitions();
        _types.clear();
        _offNumbers.clear();
    }
    const Type& type = typeOf(event);
    const bool isOutside = event.isOutside();
    ++*(isOutside ? type.outsideCount : type.count);
    State& state = stateOf(event.thread().tid);
    if (!isOutside) {
        ++threadOf(event.thread(), state).events;
        if (state.leftNs != 0 && event.thread().tid != 0 && showsRunning(event.type().kind)) {
            // It runs again, by a switch that is not among the events.
            ++_summary.unseenReturns;
            onRunning(event.thread().tid, event.timeNs());
        }
    }
    switch (event.type().kind) {
    case trace::EventKind::kCallEnter:
    case trace::EventKind::kCallExit:
        onCall(event, type, state);
        break;
    case trace::EventKind::kSwitch:
        onSwitch(event, state);
        break;
    case trace::EventKind::kWakeup:
        onWakeup(event);
        break;
    case trace::EventKind::kSignalDeliver:
        if (_summary.signals.size() < kMaxNames)
            ++_summary.signals[event.value(0)];
        break;
    case trace::EventKind::kLockBegin:
        state.lockedNs = event.timeNs();
        break;
    case trace::EventKind::kLockEnd:
        if (state.lockedNs != 0)
            _summary.lockWaits.add(event.timeNs() - state.lockedNs);
        state.lockedNs = 0;
        break;
    default:
        break;
    }
}

TraceSummaryBuilder::State& TraceSummaryBuilder::stateOf(uint32_t tid)
{
    const auto found = _states.find(tid);
    if (found != _states.end())
        return found->second;
    if (_states.size() >= kMaxThreads)
        _states.clear();
    return _states[tid];
}

TraceThread& TraceSummaryBuilder::threadOf(const stacks::ThreadRecord& record, State& state)
{
    std::vector<TraceThread>& threads = _summary.threads;
    // A number is given again after its thread's end.
    if (state.thread >= threads.size() || threads[state.thread].pid != record.pid
        || threads[state.thread].tid != record.tid) {
        if (threads.size() < kMaxThreads)
            threads.push_back({record.pid, record.tid, record.name, 0, 0, 0, {}, {}});
        state = State();
        state.thread = threads.size() - 1;
    }
    TraceThread& thread = threads[state.thread];
    if (thread.name != record.name)
        thread.name = record.name;
    return thread;
}

TraceSummaryBuilder::Type& TraceSummaryBuilder::typeOf(const TraceEvent& event)
{
    const uint32_t number = event.typeNumber();
    if (number >= _types.size())
        _types.resize(number + 1);
    Type& type = _types[number];
    if (type.count)
        return type;
    const trace::TypeRecord& record = event.type();
    const std::string& name = _summary.byName.size() < kMaxNames || _summary.byName.count(record.name) != 0
        ? record.name
        : std::string("other");
    type.count = &_summary.byName[name];
    type.outsideCount = &_summary.outsideByName[name];
    if (record.kind == trace::EventKind::kCallEnter || record.kind == trace::EventKind::kCallExit)
        type.call = callNamed(record);
    return type;
}

size_t TraceSummaryBuilder::callNamed(const trace::TypeRecord& type)
{
    const std::string name = _calls.size() < kMaxNames ? type.label : std::string("other");
    const auto [entry, isNew] = _calls.try_emplace(name, _summary.calls.size());
    if (isNew)
        _summary.calls.push_back({name, 0, 0, {}});
    return entry->second;
}

void TraceSummaryBuilder::onCall(const TraceEvent& event, const Type& type, State& state)
{
    TraceCall& call = _summary.calls[type.call];
    if (event.type().kind == trace::EventKind::kCallEnter) {
        ++call.entered;
        state.enteredNs = event.timeNs();
        state.call = static_cast<uint32_t>(type.call);
        return;
    }
    constexpr int64_t kLargestError = 4095; // MAX_ERRNO, linux/err.h
    const auto result = static_cast<int64_t>(event.value(0));
    call.failed += result < 0 && result >= -kLargestError;
    if (state.enteredNs != 0 && state.call == type.call)
        call.spans.add(event.timeNs() - state.enteredNs);
    state.enteredNs = 0;
}

void TraceSummaryBuilder::onSwitch(const TraceEvent& event, State& state)
{
    const auto next = static_cast<uint32_t>(event.value(1));
    if (!event.isOutside() && event.thread().tid != 0) { // 0 is each processor's idle thread
        const bool isVoluntary = (event.value(0) & kWaits) != 0;
        TraceThread& thread = _summary.threads[state.thread];
        ++(isVoluntary ? thread.voluntarySwitches : thread.involuntarySwitches);
        ++(isVoluntary ? _summary.voluntarySwitches : _summary.involuntarySwitches);
        state.leftNs = event.timeNs();
        state.wokenNs = 0;
        state.offStack = offStackOf(event);
    }
    onRunning(next, event.timeNs());
}

void TraceSummaryBuilder::onRunning(uint32_t tid, uint64_t timeNs)
{
    const auto found = _states.find(tid);
    if (found == _states.end() || found->second.thread >= _summary.threads.size())
        return;
    State& state = found->second;
    TraceThread& thread = _summary.threads[state.thread];
    if (state.leftNs != 0) {
        const uint64_t ns = timeNs - std::min(timeNs, state.leftNs);
        thread.offProcessor.add(ns);
        _summary.offProcessor.add(ns);
        if (state.offStack < _summary.offStacks.size())
            _summary.offStacks[state.offStack].spans.add(ns);
    }
    if (state.wokenNs != 0) {
        const uint64_t ns = timeNs - std::min(timeNs, state.wokenNs);
        thread.wakeups.add(ns);
        _summary.wakeups.add(ns);
    }
    state.leftNs = state.wokenNs = 0;
}

void TraceSummaryBuilder::onWakeup(const TraceEvent& event)
{
    const auto found = _states.find(static_cast<uint32_t>(event.value(0)));
    // Woken while it still ran: it never waited.
    if (found != _states.end() && found->second.leftNs != 0)
        found->second.wokenNs = event.timeNs();
}

size_t TraceSummaryBuilder::offStackOf(const TraceEvent& event)
{
    if (!event.hasStack())
        return SIZE_MAX;
    const uint32_t pid = event.thread().pid;
    const uint64_t number = uint64_t{pid} << 32 | event.stackNumber();
    const auto known = _offNumbers.find(number);
    if (known != _offNumbers.end())
        return known->second;
    const bool isWhole = event.stack(_frames);
    uint64_t hash = pid + 1;
    for (const uint64_t frame : _frames)
        hash = (hash ^ frame) * 0x9e3779b97f4a7c15U ^ hash >> 29;
    const auto [entry, isNew] = _offStacks.try_emplace(hash, _summary.offStacks.size());
    if (isNew && _summary.offStacks.size() >= kMaxOffStacks) {
        _offStacks.erase(entry);
        return SIZE_MAX;
    }
    if (isNew)
        _summary.offStacks.push_back({pid, event.timeNs(), _frames, isWhole, {}});
    return _offNumbers[number] = entry->second;
}

TraceSummary TraceSummaryBuilder::take()
{
    const auto byTime = [](const auto& a, const auto& b) { return a.spans.totalNs > b.spans.totalNs; };
    std::stable_sort(_summary.calls.begin(), _summary.calls.end(), byTime);
    std::stable_sort(_summary.offStacks.begin(), _summary.offStacks.end(), byTime);
    std::stable_sort(_summary.threads.begin(), _summary.threads.end(),
                     [](const TraceThread& a, const TraceThread& b) { return a.events > b.events; });
    std::erase_if(_summary.byName, [](const auto& entry) { return entry.second == 0; });
    std::erase_if(_summary.outsideByName, [](const auto& entry) { return entry.second == 0; });
    return std::move(_summary);
}

TraceSummary summarizeTrace(const Bundle& bundle, const InstrumentData& data, Symbolizer& symbolizer,
                            const TimeSpan& span)
{
    TraceSummaryBuilder builder;
    MessageTotals messages;
    uint64_t left = 0;
    const auto onEvent = [&](const TraceEvent& event) {
        if (span.contains(event.timeNs()))
            builder.add(event);
        else
            ++left;
    };
    TraceTotals totals = readTrace(
        bundle, data, onEvent, [&](uint64_t, uint32_t parent, uint32_t child) { symbolizer.noteFork(parent, child); },
        messages);
    TraceSummary summary = builder.take();
    totals.events -= left;
    totals.firstTimeNs = std::max(totals.firstTimeNs, span.fromNs);
    totals.lastTimeNs = std::max(totals.firstTimeNs, std::min(totals.lastTimeNs, span.untilNs));
    summary.totals = totals;
    summary.messages = messages;
    return summary;
}

} // namespace vnt
