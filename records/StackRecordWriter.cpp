#include "records/StackRecordWriter.h"

#include "platform/base/Check.h"

namespace vnt::stacks {
namespace {

/// A record put together on the stack and appended at once: half the cost of appending byte by byte.
class SmallRecord {
public:
    void byte(uint8_t value) { _bytes[_size++] = value; }
    void varint(uint64_t value)
    {
        while (value >= 0x80) {
            byte(static_cast<uint8_t>(value | 0x80));
            value >>= 7;
        }
        byte(static_cast<uint8_t>(value));
    }
    void signedVarint(int64_t value)
    {
        varint((static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63));
    }
    void appendTo(ByteWriter& bytes) const { bytes.raw(_bytes, _size); }

private:
    uint8_t _bytes[64]; // a kind and up to five varints of ten bytes
    size_t _size = 0;
};

int64_t difference(uint64_t to, uint64_t from) { return static_cast<int64_t>(to - from); }

} // namespace

StackRecordWriter::StackRecordWriter(const SessionRecord& session) : _session(session) { beginMessage(); }

void StackRecordWriter::beginMessage()
{
    static constexpr std::byte kBlank[kHeaderBytes] = {};
    _bytes.clear();
    _bytes.raw(kBlank, sizeof kBlank);
    _nodesBefore = _nodes;
    _empty = true;
    _timed = false;
    _baseTimeNs = _lastTimeNs = 0;
    _pendingSamples = _pendingEvents = 0;
    if (!_newGeneration)
        return;
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kSession));
    record.varint(_session.intervalNs);
    record.varint(_session.flags);
    record.varint(_session.windowNs);
    record.appendTo(_bytes);
}

void StackRecordWriter::beginTimed(RecordKind kind, uint64_t timeNs)
{
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = timeNs;
    }
    SmallRecord record;
    record.byte(static_cast<uint8_t>(kind));
    record.signedVarint(difference(timeNs, _lastTimeNs));
    record.appendTo(_bytes);
    _lastTimeNs = timeNs;
    _empty = false;
}

uint32_t StackRecordWriter::addNode(uint32_t caller, uint64_t callerAddress, uint64_t address)
{
    VNT_CHECK(caller <= _nodes && _nodes < kMaxNodes);
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kNode));
    record.varint(caller);
    record.signedVarint(difference(address, callerAddress));
    record.appendTo(_bytes);
    _empty = false;
    return ++_nodes;
}

uint32_t StackRecordWriter::addCutNode()
{
    VNT_CHECK(_nodes < kMaxNodes);
    _bytes.little(static_cast<uint8_t>(RecordKind::kCutNode));
    _empty = false;
    return ++_nodes;
}

void StackRecordWriter::addThread(uint32_t thread, const ThreadRecord& thisThread)
{
    VNT_CHECK(thread < kMaxThreads);
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kThread));
    record.varint(thread);
    record.varint(thisThread.pid);
    record.varint(thisThread.tid);
    record.varint(thisThread.flags);
    record.appendTo(_bytes);
    _bytes.text(std::string_view(thisThread.name).substr(0, kMaxNameBytes));
    _empty = false;
}

void StackRecordWriter::addSample(uint64_t timeNs, uint32_t thread, uint32_t stack)
{
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = timeNs;
    }
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kSample));
    record.signedVarint(difference(timeNs, _lastTimeNs));
    record.varint(thread);
    record.varint(stack);
    record.appendTo(_bytes);
    _lastTimeNs = timeNs;
    _empty = false;
    ++_pendingSamples;
}

void StackRecordWriter::addBlocked(uint64_t timeNs, uint32_t thread, uint32_t stack, uint64_t durationNs)
{
    beginTimed(RecordKind::kBlocked, timeNs);
    _bytes.varint(thread);
    _bytes.varint(stack);
    _bytes.varint(durationNs);
    ++_pendingSamples;
}

void StackRecordWriter::addLost(uint64_t timeNs, LostCause cause, uint64_t total)
{
    beginTimed(RecordKind::kLost, timeNs);
    _bytes.varint(static_cast<uint8_t>(cause));
    _bytes.varint(total);
}

void StackRecordWriter::addExec(uint64_t timeNs, uint32_t pid, std::string_view name)
{
    beginTimed(RecordKind::kExec, timeNs);
    _bytes.varint(pid);
    _bytes.text(name.substr(0, kMaxNameBytes));
    ++_pendingEvents;
}

void StackRecordWriter::addFork(uint64_t timeNs, uint32_t parent, uint32_t child)
{
    beginTimed(RecordKind::kFork, timeNs);
    _bytes.varint(parent);
    _bytes.varint(child);
    ++_pendingEvents;
}

void StackRecordWriter::addExit(uint64_t timeNs, uint32_t pid)
{
    beginTimed(RecordKind::kExit, timeNs);
    _bytes.varint(pid);
    ++_pendingEvents;
}

void StackRecordWriter::addCost(uint64_t timeNs, uint64_t cpuNs)
{
    beginTimed(RecordKind::kCost, timeNs);
    _bytes.varint(cpuNs);
    _bytes.varint(totalSamples());
}

std::span<const std::byte> StackRecordWriter::message()
{
    ByteWriter header;
    header.reserve(kHeaderBytes);
    header.little(kMagic);
    header.little(kVersion);
    header.little(uint16_t{0});
    header.little(_generation);
    header.little(_sequence);
    header.little(_nodesBefore);
    header.little(uint32_t{0});
    header.little(_baseTimeNs);
    VNT_CHECK(header.size() == kHeaderBytes);
    _bytes.patch(0, header.view().data(), kHeaderBytes);
    return _bytes.view();
}

void StackRecordWriter::messageSent()
{
    ++_sequence;
    _sentSamples += _pendingSamples;
    _newGeneration = false;
    beginMessage();
}

void StackRecordWriter::messageDropped()
{
    _empty = true;
    beginGeneration();
}

void StackRecordWriter::beginGeneration()
{
    VNT_CHECK(_empty);
    ++_generation;
    _nodes = 0;
    _newGeneration = true;
    beginMessage();
}

} // namespace vnt::stacks
