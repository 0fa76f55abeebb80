#include "collectors/kernel/TraceAssembler.h"

#include <algorithm>

#include "collectors/kernel/SystemCalls.h"
#include "collectors/kernel/TracePlan.h"

namespace vnt {
namespace {

constexpr size_t kBatchBytes = 48u << 10; // a message; large enough that its cost does not matter, small for the queue
constexpr size_t kMaxPathBytes = 4096; // PATH_MAX
constexpr size_t kMaxChain = 2 * stacks::kMaxDepth; // kernel and user frames, and context markers
constexpr size_t kTypesPerCall = 2; // 64-bit and 32-bit code
constexpr size_t kCommonPidOffset = 4; // struct trace_entry: type, flags, preempt count, then the thread
constexpr uint32_t kGone = UINT32_MAX; // perf_event_pid() of a task past its exit

/// Where `arguments` of a call's entry stand; other tracepoints use their own.
bool isCall(const Tracepoint& tracepoint)
{
    return tracepoint.plan->kind == trace::EventKind::kCallEnter
        || tracepoint.plan->kind == trace::EventKind::kCallExit;
}

uint64_t packedWord(const RawEvent& event, size_t index)
{
    return ValueSlot{static_cast<uint32_t>(8 * index), 8, false}.in(event.record);
}

/// The text that fills a record up to its trailer.
std::string_view textBeforeTrailer(ByteCursor& cursor)
{
    if (cursor.remaining() < kProcessTrailerBytes) {
        cursor.fail();
        return {};
    }
    const auto bytes = cursor.bytes(cursor.remaining() - kProcessTrailerBytes, kMaxPathBytes + 8);
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return text.substr(0, text.find('\0'));
}

uint64_t trailerTime(std::span<const std::byte> payload)
{
    if (payload.size() < kProcessTrailerBytes)
        return 0;
    return ByteCursor(payload.last(8)).little<uint64_t>();
}

std::string hexadecimal(std::span<const std::byte> bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::byte b : bytes) {
        text.push_back(kDigits[static_cast<uint8_t>(b) >> 4]);
        text.push_back(kDigits[static_cast<uint8_t>(b) & 15]);
    }
    return text;
}

} // namespace

TraceAssembler::TraceAssembler(const Settings& settings, const std::vector<Tracepoint>& tracepoints,
                               const TraceFs& files, RecordSink& sink, ProcessObserver* observer)
    : _tracepoints(tracepoints),
      _files(files),
      _sink(sink),
      _observer(observer),
      _filters(settings.filters),
      _sameNumbers(settings.sameNumbers),
      _maxFrames(settings.session.maxFrames),
      _writer(settings.session),
      _types(tracepoints.size())
{
}

void TraceAssembler::Definitions::addThread(uint32_t thread, const stacks::ThreadRecord& record)
{
    if (_tasks.contains(record.tid)) {
        _writer.addThread(thread, record);
        return;
    }
    stacks::ThreadRecord marked = record;
    marked.flags |= trace::kOutsideTarget;
    _writer.addThread(thread, marked);
}

bool TraceAssembler::concerns(const RawEvent& event, const Tracepoint& tracepoint) const
{
    if (_tasks.contains(event.tid))
        return true;
    const auto about = static_cast<uint32_t>(tracepoint.about.in(event.record));
    return _sameNumbers && about != 0 && _tasks.contains(about);
}

void TraceAssembler::onEvent(const RawEvent& given)
{
    RawEvent event = given;
    const Tracepoint& tracepoint = _tracepoints[event.tracepoint];
    if (event.tid == kGone) { // it leaves the processor for the last time
        event.tid = static_cast<uint32_t>(ValueSlot{kCommonPidOffset, 4, false}.in(event.record));
        event.pid = _tasks.processOf(event.tid);
    }
    if (_filters && !concerns(event, tracepoint))
        return;
    _latestNs = std::max(_latestNs, event.timeNs);
    if (!_interner.roomFor(event.chain.size()) || !_threads.room() || _writer.typeCount() >= trace::kMaxTypes)
        renewGeneration();
    trace::TraceRecordWriter::Event record;
    record.timeNs = event.timeNs;
    record.cpu = event.cpu;
    record.thread = _threads.numberOf(event.pid, event.tid, _definitions);
    record.type = typeOf(event, tracepoint);
    record.stack =
        _interner.intern(event.chain.first(std::min<size_t>(event.chain.size(), kMaxChain)), _maxFrames, _definitions);
    // A call's type has as many values as the call has arguments.
    _values.clear();
    const size_t count = _writer.valueCount(record.type);
    const size_t before = isCall(tracepoint) ? 1 : 0;
    for (size_t i = 0; i < count; ++i)
        _values.push_back(event.isPacked ? packedWord(event, i + before) : tracepoint.values[i].in(event.record));
    record.values = _values;
    record.text = event.isPacked ? event.text : tracepoint.textIn(event.record);
    _writer.addEvent(record);
    if (_writer.sizeBytes() >= kBatchBytes)
        send(Wait::kNo);
}

uint32_t TraceAssembler::typeOf(const RawEvent& event, const Tracepoint& tracepoint)
{
    std::vector<uint32_t>& numbers = _types[event.tracepoint];
    size_t index = 0;
    uint32_t call = 0;
    bool is32Bit = false;
    if (isCall(tracepoint)) {
        is32Bit = (_threads.latestFlags() & stacks::ThreadRecord::k32Bit) != 0;
        const uint64_t number = event.isPacked ? packedWord(event, 0) : tracepoint.call.in(event.record);
        call = static_cast<uint32_t>(std::min<uint64_t>(number, systemCallLimit()));
        index = call * kTypesPerCall + (is32Bit ? 1 : 0);
    }
    if (index >= numbers.size())
        numbers.resize(isCall(tracepoint) ? (systemCallLimit() + 1) * kTypesPerCall : 1, kUndefined);
    if (numbers[index] == kUndefined)
        numbers[index] = define(tracepoint, call, is32Bit);
    return numbers[index];
}

uint32_t TraceAssembler::define(const Tracepoint& tracepoint, uint32_t call, bool is32Bit)
{
    const TracepointPlan& plan = *tracepoint.plan;
    trace::TypeRecord type;
    type.kind = plan.kind;
    type.name = std::string(plan.system) + ":" + plan.name;
    if (isCall(tracepoint)) {
        type.number = call;
        type.label = systemCallName(call, is32Bit);
        if (type.label.empty())
            type.label = call == systemCallLimit() ? "invalid" : "call " + std::to_string(call);
    }
    if (plan.kind == trace::EventKind::kCallEnter) {
        type.values = systemCallArguments(_files, call, is32Bit);
    } else {
        for (const char* name : plan.values) {
            if (name)
                type.values.emplace_back(name);
        }
    }
    if (plan.text)
        type.flags |= trace::TypeRecord::kText;
    if (plan.hexadecimal)
        type.flags |= trace::TypeRecord::kAddresses;
    return _writer.addType(type);
}

void TraceAssembler::onProcessRecord(const perf_event_header& header, std::span<const std::byte> payload)
{
    const uint64_t timeNs = trailerTime(payload);
    switch (header.type) {
    case PERF_RECORD_MMAP2:
        onMapping(header, ByteCursor(payload), timeNs);
        break;
    case PERF_RECORD_COMM:
        onName(header, ByteCursor(payload), timeNs);
        break;
    case PERF_RECORD_FORK:
    case PERF_RECORD_EXIT:
        onTask(header.type, ByteCursor(payload));
        break;
    default:
        break; // nothing else was asked for; a newer kernel may tell more
    }
}

void TraceAssembler::onMapping(const perf_event_header& header, ByteCursor cursor, uint64_t timeNs)
{
    MappingEvent event;
    event.timeNs = timeNs;
    const auto pid = cursor.little<uint32_t>();
    const auto tid = cursor.little<uint32_t>();
    event.pid = static_cast<pid_t>(pid);
    event.start = cursor.little<uint64_t>();
    event.sizeBytes = cursor.little<uint64_t>();
    event.fileOffset = cursor.little<uint64_t>();
    if (header.misc & PERF_RECORD_MISC_MMAP_BUILD_ID) {
        const auto size = cursor.little<uint8_t>();
        cursor.bytes(3, 3); // reserved
        const auto id = cursor.bytes(20, 20);
        event.buildId = hexadecimal(id.first(std::min<size_t>(size, id.size())));
    } else {
        cursor.bytes(24, 24); // device, inode, generation
    }
    cursor.bytes(8, 8); // protection, flags
    event.path = textBeforeTrailer(cursor);
    if (cursor.failed())
        onLost(trace::LostCause::kMalformed, 1);
    else if (_observer && _tasks.contains(tid))
        _observer->onMapping(event);
}

void TraceAssembler::onName(const perf_event_header& header, ByteCursor cursor, uint64_t timeNs)
{
    const auto pid = cursor.little<uint32_t>();
    const auto tid = cursor.little<uint32_t>();
    const std::string_view name = textBeforeTrailer(cursor);
    if (cursor.failed()) {
        onLost(trace::LostCause::kMalformed, 1);
        return;
    }
    if (!_tasks.contains(tid))
        return;
    if ((header.misc & PERF_RECORD_MISC_COMM_EXEC) == 0) {
        _threads.onName(pid, tid, name);
        return;
    }
    _threads.onExec(pid, name);
    if (_observer)
        _observer->onExec(timeNs, static_cast<pid_t>(pid), std::string(name));
}

void TraceAssembler::onTask(uint32_t type, ByteCursor cursor)
{
    const auto pid = cursor.little<uint32_t>();
    const auto parentPid = cursor.little<uint32_t>();
    const auto tid = cursor.little<uint32_t>();
    const auto parentTid = cursor.little<uint32_t>();
    const auto timeNs = cursor.little<uint64_t>();
    if (cursor.failed()) {
        onLost(trace::LostCause::kMalformed, 1);
        return;
    }
    if (type == PERF_RECORD_EXIT) {
        if (!_tasks.contains(tid))
            return;
        _threads.onExit(tid);
        _tasks.onExit(tid);
        if (_observer && pid == tid)
            _observer->onExit(timeNs, static_cast<pid_t>(pid));
        return;
    }
    _tasks.onFork(pid, tid, parentTid);
    if (!_tasks.contains(tid))
        return;
    _threads.onFork(pid, tid, parentPid, parentTid);
    if (pid == parentPid)
        return;
    _writer.addFork(timeNs, parentPid, pid);
    if (_observer)
        _observer->onFork(timeNs, static_cast<pid_t>(parentPid), static_cast<pid_t>(pid));
}

void TraceAssembler::onSettled(uint64_t timeNs)
{
    _tasks.forgetEnded();
    if (!_writer.empty())
        _writer.addSettled(timeNs);
}

void TraceAssembler::writeLosses()
{
    for (size_t i = 0; i < trace::kLostCauses; ++i) {
        if (_lost[i] != _lostWritten[i])
            _writer.addLost(_latestNs, static_cast<trace::LostCause>(i), _lost[i]);
        _lostWritten[i] = _lost[i];
    }
}

void TraceAssembler::repeatLosses() { std::fill(std::begin(_lostWritten), std::end(_lostWritten), 0); }

void TraceAssembler::renewGeneration()
{
    const uint32_t generation = _writer.generation();
    send(Wait::kNo);
    if (_writer.generation() == generation) // else the batch was dropped, and that began one
        _writer.beginGeneration();
    forgetDefinitions();
}

void TraceAssembler::forgetDefinitions()
{
    _interner.clear();
    _threads.beginGeneration();
    for (std::vector<uint32_t>& numbers : _types)
        std::fill(numbers.begin(), numbers.end(), kUndefined);
}

Status TraceAssembler::flush(Wait wait, uint64_t recorderCpuNs)
{
    if (recorderCpuNs != 0)
        _writer.addCost(_latestNs, recorderCpuNs);
    writeLosses();
    send(wait);
    if (_observer) {
        const std::vector<uint64_t> addresses = _interner.takeNewKernelAddresses();
        if (!addresses.empty())
            _observer->onKernelAddresses(addresses);
    }
    return _status;
}

void TraceAssembler::send(Wait wait)
{
    if (_writer.empty())
        return;
    if (_status.code() == Code::kPeerGone) {
        _writer.messageDropped();
        forgetDefinitions();
        return;
    }
    const std::span<const std::byte> message = _writer.message();
    _status = wait == Wait::kForRoom ? _sink.send(message) : _sink.trySend(message);
    if (_status.ok()) {
        _writer.messageSent();
        return;
    }
    onLost(trace::LostCause::kBatchDropped, _writer.pendingEvents());
    repeatLosses(); // the totals in the dropped batch are gone too
    _writer.messageDropped();
    forgetDefinitions();
}

} // namespace vnt
