#include "bundle/exports/PerfettoKernel.h"

#include <algorithm>

#include "bundle/exports/utf8.h"

namespace vnt {

using trace::EventKind;

namespace {

// GenericKernelTaskStateEvent::TaskStateEnum.
enum State : uint32_t {
    kCreated = 1,
    kRunnable = 2,
    kRunning = 3,
    kInterruptible = 4,
    kUninterruptible = 5,
    kStopped = 6,
    kDead = 7,
};

/// Threads whose state is remembered; more stand in forged recordings only.
constexpr size_t kMaxTasks = 1u << 17;

/// Of a thread that leaves the processor, by the bits of its state (include/linux/sched.h).
State stateOf(uint64_t bits)
{
    if ((bits & 0xff) == 0)
        return kRunnable;
    if ((bits & 0x1) != 0)
        return kInterruptible;
    if ((bits & 0x2) != 0)
        return kUninterruptible;
    return (bits & 0xc) != 0 ? kStopped : kDead;
}

} // namespace

void PerfettoKernel::add(const ExportKernelEvent& event)
{
    _lastNs = std::max(_lastNs, event.event.timeNs());
    const EventKind kind = event.event.type().kind;
    const uint64_t track = _tracks.thread(event.thread);
    const KernelSpanEnd span = kernelSpanOf(kind);
    if (span.kind == KernelSpanEnd::Kind::kBegin)
        begin(event, track, span.group);
    else if (span.kind == KernelSpanEnd::Kind::kEnd)
        end(event, track, span.group);
    else
        instant(event, track);
    addStates(event.event);
}

void PerfettoKernel::begin(const ExportKernelEvent& event, uint64_t track, uint32_t group)
{
    std::vector<Spans::Span>& spans = _spans.of(event.thread);
    endSpans(spans, Spans::keptBy(spans, group), track, event.event.timeNs());
    if (spans.size() >= Spans::kMaxDepth)
        return instant(event, track);
    spans.push_back({group, {}});
    PerfettoEvent made(_events, PerfettoEvent::kBegin, track);
    made.name(kernelEventName(event.event), kernelCategoryOf(event.event.type().kind)).stack(event.stack);
    addValues(made, event.event);
    made.write(event.event.timeNs());
}

void PerfettoKernel::end(const ExportKernelEvent& event, uint64_t track, uint32_t group)
{
    std::vector<Spans::Span>& spans = _spans.of(event.thread);
    const size_t own = Spans::keptBy(spans, group);
    if (own == spans.size()) // it began before the recording, or its beginning is lost
        return instant(event, track);
    endSpans(spans, own + 1, track, event.event.timeNs());
    spans.pop_back();
    PerfettoEvent made(_events, PerfettoEvent::kEnd, track);
    addValues(made, event.event);
    made.write(event.event.timeNs());
}

void PerfettoKernel::instant(const ExportKernelEvent& event, uint64_t track)
{
    PerfettoEvent made(_events, PerfettoEvent::kInstant, track);
    const EventKind kind = event.event.type().kind;
    const bool isEnd = kernelSpanOf(kind).kind == KernelSpanEnd::Kind::kEnd;
    const std::string_view name = kernelEventName(event.event);
    made.name(isEnd ? std::string(name) + " (return)" : std::string(name), kernelCategoryOf(kind));
    made.stack(event.stack);
    addValues(made, event.event);
    if (!event.event.text().empty())
        made.text("text", event.event.text());
    made.write(event.event.timeNs());
}

void PerfettoKernel::endSpans(std::vector<Spans::Span>& spans, size_t kept, uint64_t track, uint64_t timeNs)
{
    for (; spans.size() > kept; spans.pop_back())
        PerfettoEvent(_events, PerfettoEvent::kEnd, track).write(timeNs);
}

void PerfettoKernel::addValues(PerfettoEvent& made, const TraceEvent& event)
{
    const trace::TypeRecord& type = event.type();
    const bool areAddresses = (type.flags & trace::TypeRecord::kAddresses) != 0;
    for (size_t i = 0; i < type.values.size() && i < event.values().size(); ++i) {
        const std::string_view name = type.values[i].empty() ? std::string_view("value") : type.values[i];
        if (areAddresses)
            made.pointer(name, event.value(i));
        else
            made.signedNumber(name, static_cast<int64_t>(event.value(i)));
    }
}

void PerfettoKernel::addStates(const TraceEvent& event)
{
    const uint32_t tid = event.thread().tid;
    if (tid != 0 && !event.isOutside() && (_tasks.count(tid) != 0 || _tasks.size() < kMaxTasks))
        _tasks[tid].name = event.thread().name;
    const uint64_t timeNs = event.timeNs();
    const auto other = [&](size_t index) { return static_cast<uint32_t>(event.value(index)); };
    switch (event.type().kind) {
    case EventKind::kSwitch:
        if (!event.isOutside())
            setState(tid, stateOf(event.value(0)), timeNs, event.cpu());
        else if (_tasks.size() < kMaxTasks) // it is told because the next one is the target's
            _tasks.try_emplace(other(1));
        setState(other(1), kRunning, timeNs, event.cpu());
        break;
    case EventKind::kWakeup:
        // Woken while it still ran: it goes on.
        if (const auto woken = _tasks.find(other(0)); woken != _tasks.end() && woken->second.state != kRunning)
            setState(other(0), kRunnable, timeNs, other(1));
        break;
    case EventKind::kNewTask:
        if (_tasks.size() < kMaxTasks)
            _tasks.try_emplace(other(0));
        setState(other(0), kCreated, timeNs, event.cpu());
        break;
    default:
        break;
    }
}

/// Only of threads of the target: of others the recording knows too little. A state said twice is said once.
void PerfettoKernel::setState(uint32_t tid, uint32_t state, uint64_t timeNs, uint32_t cpu)
{
    const auto found = _tasks.find(tid);
    if (tid == 0 || found == _tasks.end() || found->second.state == state)
        return;
    found->second.state = state;
    std::string text;
    protozero::pbf_writer message(text);
    message.add_int32(1, static_cast<int32_t>(cpu));
    if (!found->second.name.empty())
        message.add_string(2, validUtf8(found->second.name));
    message.add_int64(3, tid);
    message.add_uint32(4, state);
    _states.write(timeNs, perfetto::packet::kTaskState, text);
}

void PerfettoKernel::finish()
{
    std::vector<uint32_t> open;
    for (const auto& [thread, spans] : _spans.all()) {
        if (!spans.empty())
            open.push_back(thread);
    }
    std::sort(open.begin(), open.end());
    for (const uint32_t thread : open)
        endSpans(_spans.of(thread), 0, _tracks.thread(thread), _lastNs);
}

} // namespace vnt
