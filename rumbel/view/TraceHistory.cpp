#include "rumbel/view/TraceHistory.h"

#include <algorithm>

namespace vnt::view {

using trace::EventKind;

namespace {

constexpr uint32_t kUnknown = ~0u;
constexpr uint64_t kFirstKernelAddress = uint64_t{1} << 63;
/// Beginnings whose ends may still come: threads and processors, a few each. Only forged recordings come here.
constexpr size_t kMaxPending = 1u << 18;

/// What the end of something began with; kOther: it ends nothing.
EventKind beginningOf(EventKind end)
{
    switch (end) {
    case EventKind::kCallExit:
        return EventKind::kCallEnter;
    case EventKind::kLockEnd:
        return EventKind::kLockBegin;
    case EventKind::kInterruptExit:
        return EventKind::kInterruptEnter;
    case EventKind::kSoftInterruptExit:
        return EventKind::kSoftInterruptEnter;
    default:
        return EventKind::kOther;
    }
}

bool isBeginning(EventKind kind)
{
    return kind == EventKind::kCallEnter || kind == EventKind::kLockBegin || kind == EventKind::kInterruptEnter
        || kind == EventKind::kSoftInterruptEnter;
}

bool belongsToProcessor(EventKind begin)
{
    return begin == EventKind::kInterruptEnter || begin == EventKind::kSoftInterruptEnter;
}

} // namespace

TraceHistory::TraceHistory(PageBuilder& page, PageSymbols& symbols)
    : _page(page),
      _symbols(symbols),
      _counts(page.originNs()),
      _off(page.originNs())
{
}

TraceHistory::Class TraceHistory::classOf(EventKind kind)
{
    switch (kind) {
    case EventKind::kCallEnter:
    case EventKind::kCallExit:
        return kCalls;
    case EventKind::kSwitch:
    case EventKind::kWakeup:
        return kScheduling;
    case EventKind::kNewTask:
    case EventKind::kRename:
    case EventKind::kFork:
    case EventKind::kExec:
    case EventKind::kExit:
        return kTasks;
    case EventKind::kPageFault:
        return kFaults;
    case EventKind::kSignalGenerate:
    case EventKind::kSignalDeliver:
        return kSignals;
    case EventKind::kLockBegin:
    case EventKind::kLockEnd:
        return kLocks;
    case EventKind::kInterruptEnter:
    case EventKind::kInterruptExit:
    case EventKind::kSoftInterruptEnter:
    case EventKind::kSoftInterruptExit:
        return kInterrupts;
    case EventKind::kSend:
    case EventKind::kReceive:
        return kNetwork;
    case EventKind::kDiskIssue:
    case EventKind::kDiskComplete:
    case EventKind::kRingSubmit:
    case EventKind::kRingComplete:
        return kStorage;
    case EventKind::kOther:
        break;
    }
    return kOther;
}

uint32_t TraceHistory::typeNamed(Type type)
{
    const std::string key = type.name + '\n' + std::to_string(static_cast<uint32_t>(type.event));
    const auto [found, isNew] = _typeNumbers.try_emplace(key, static_cast<uint32_t>(_types.size()));
    if (isNew) {
        if (_types.size() >= kMaxTypes) {
            _typeNumbers.erase(found);
            return kMaxTypes - 1;
        }
        _types.push_back(std::move(type));
    }
    return found->second;
}

uint32_t TraceHistory::typeOf(const TraceEvent& event)
{
    if (_definitions != &event.definitions()) {
        _definitions = &event.definitions();
        _knownTypes.clear();
        _knownStacks.clear();
    }
    if (event.typeNumber() >= _knownTypes.size())
        _knownTypes.resize(event.typeNumber() + 1, kUnknown);
    uint32_t& known = _knownTypes[event.typeNumber()];
    if (known == kUnknown) {
        const trace::TypeRecord& record = event.type();
        const bool isCall = record.kind == EventKind::kCallEnter || record.kind == EventKind::kCallExit;
        Type type{pageText(isCall && !record.label.empty() ? record.label : record.name),
                  classOf(record.kind),
                  {},
                  record.flags,
                  record.kind};
        for (const std::string& value : record.values)
            type.values.push_back(pageText(value));
        known = typeNamed(std::move(type));
    }
    return known;
}

uint32_t TraceHistory::nodeOf(const TraceEvent& event)
{
    if (!event.hasStack())
        return 0;
    const uint32_t pid = event.thread().pid;
    const uint64_t key = uint64_t{pid} << 32 | event.stackNumber();
    const auto known = _knownStacks.find(key);
    if (known != _knownStacks.end())
        return known->second;
    uint32_t node = 0;
    if (!event.stack(_frames))
        node = _tree.child(node, _symbols.function(Symbolizer::kTruncated));
    for (size_t i = _frames.size(); i-- > 0;) {
        // The innermost frame, and the user's below the kernel's, are where the code was.
        const bool entersKernel = i > 0 && _frames[i] < kFirstKernelAddress && _frames[i - 1] >= kFirstKernelAddress;
        const FrameRole role = i == 0 || entersKernel ? FrameRole::kExact : FrameRole::kReturn;
        node = _tree.child(
            node, _symbols.function(_symbols.symbolizer().resolve(pid, _frames[i], event.timeNs(), role).symbol));
    }
    _knownStacks.emplace(key, node);
    return node;
}

TraceHistory::Row TraceHistory::rowOf(const TraceEvent& event)
{
    Row row;
    row.timeNs = event.timeNs();
    row.cpu = event.cpu();
    row.type = typeOf(event);
    const stacks::ThreadRecord& thread = event.thread();
    row.thread = _page.threads().number(thread.pid, thread.tid, thread.name);
    row.node = nodeOf(event);
    row.valueCount = static_cast<uint8_t>(std::min<size_t>(event.values().size(), trace::kMaxValues));
    std::copy_n(event.values().begin(), row.valueCount, row.values.begin());
    row.text = event.text();
    return row;
}

void TraceHistory::begin(const TraceEvent& event, EventKind kind, uint32_t owner)
{
    Row row = rowOf(event);
    const auto [place, isNew] = _pending.try_emplace({kind, owner}, Row());
    if (!isNew)
        keep(std::move(place->second)); // its end is not recorded
    place->second = std::move(row);
    if (_pending.size() < kMaxPending)
        return;
    for (auto& [key, waiting] : _pending)
        keep(std::move(waiting));
    _pending.clear();
}

void TraceHistory::end(const TraceEvent& event, EventKind kind, uint32_t owner)
{
    const auto found = _pending.find({kind, owner});
    if (found == _pending.end()) {
        keep(rowOf(event));
        return;
    }
    Row row = std::move(found->second);
    _pending.erase(found);
    row.durationNs = event.timeNs() - std::min(event.timeNs(), row.timeNs);
    row.ended = true;
    row.result = static_cast<int64_t>(event.value(kind == EventKind::kCallEnter ? 0 : 1));
    keep(std::move(row));
}

void TraceHistory::endOffProcessor(uint32_t tid, uint64_t timeNs)
{
    const auto found = _pending.find({EventKind::kSwitch, tid});
    if (found == _pending.end())
        return;
    Row row = std::move(found->second);
    _pending.erase(found);
    row.durationNs = timeNs - std::min(timeNs, row.timeNs);
    row.ended = true;
    _off.addSpan(row.timeNs, timeNs, row.thread, row.node, {1, row.durationNs});
    keep(std::move(row));
}

void TraceHistory::add(const TraceEvent& event)
{
    const EventKind kind = event.type().kind;
    if (kind == EventKind::kSwitch) {
        endOffProcessor(static_cast<uint32_t>(event.value(1)), event.timeNs());
        if (!event.isOutside())
            begin(event, kind, event.thread().tid);
        return;
    }
    const auto ownerOf = [&](EventKind begin) { return belongsToProcessor(begin) ? event.cpu() : event.thread().tid; };
    if (isBeginning(kind))
        begin(event, kind, ownerOf(kind));
    else if (const EventKind ends = beginningOf(kind); ends != EventKind::kOther)
        end(event, ends, ownerOf(ends));
    else
        keep(rowOf(event));
}

void TraceHistory::keep(Row row)
{
    ++_rowsSeen;
    _counts.add(row.timeNs, row.thread, row.type, {1, row.durationNs});
    _rows.push_back(std::move(row));
    if (_rows.size() >= kMaxRows * 2)
        thin();
}

/// Down to kMaxRows or a little less.
void TraceHistory::thin()
{
    while (_rows.size() > kMaxRows) {
        std::vector<uint64_t> durations;
        durations.reserve(_rows.size());
        for (const Row& row : _rows)
            durations.push_back(row.durationNs);
        const auto middle = durations.begin() + static_cast<std::ptrdiff_t>(durations.size() / 2);
        std::nth_element(durations.begin(), middle, durations.end());
        bool goes = false;
        std::erase_if(_rows,
                      [&, limit = *middle](const Row& row) { return row.durationNs <= limit && (goes = !goes); });
    }
}

} // namespace vnt::view
