#include "records/HeapRecordWriter.h"

#include "platform/base/Check.h"
#include "records/HeapJournal.h"

namespace vnt::heap {
namespace {

/// A record put together on the stack and appended at once: half the cost of appending byte by byte.
class SmallRecord {
public:
    SmallRecord(RecordKind kind, Function function) : SmallRecord(kind, static_cast<unsigned>(function)) { }
    SmallRecord(RecordKind kind, unsigned high) { byte(static_cast<uint8_t>(static_cast<unsigned>(kind) | high << 4)); }
    void byte(uint8_t value) { _bytes[_size++] = value; }
    void varint(uint64_t value)
    {
        while (value >= 0x80) {
            byte(static_cast<uint8_t>(value | 0x80));
            value >>= 7;
        }
        byte(static_cast<uint8_t>(value));
    }
    void difference(uint64_t to, uint64_t from)
    {
        const auto value = static_cast<int64_t>(to - from);
        varint((static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63));
    }
    void appendTo(ByteWriter& bytes) const { bytes.raw(_bytes, _size); }

private:
    uint8_t _bytes[64]; // a kind and up to five varints of ten bytes
    size_t _size = 0;
};

} // namespace

HeapRecordWriter::HeapRecordWriter(const SessionRecord& session)
    : _version((session.eventsMask & (journal::kCountEvents | journal::kClassNames)) != 0 ? kVersion : kPlainVersion)
{
    SmallRecord record(RecordKind::kSession, Function::kMalloc);
    record.varint(session.eventsMask);
    record.varint(session.flags);
    record.appendTo(_definitions);
}

uint32_t HeapRecordWriter::addNode(uint32_t caller, uint64_t callerAddress, uint64_t address)
{
    VNT_CHECK(caller <= _nodes && _nodes < kMaxNodes);
    SmallRecord record(RecordKind::kNode, Function::kMalloc);
    record.varint(caller);
    record.difference(address, callerAddress);
    record.appendTo(_definitions);
    return ++_nodes;
}

uint32_t HeapRecordWriter::addCutNode()
{
    VNT_CHECK(_nodes < kMaxNodes);
    SmallRecord(RecordKind::kCutNode, Function::kMalloc).appendTo(_definitions);
    return ++_nodes;
}

/// The difference to write; a time before the last one is taken as the last one.
uint64_t HeapRecordWriter::since(uint64_t timeNs)
{
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = timeNs;
    }
    if (timeNs <= _lastTimeNs)
        return 0;
    const uint64_t difference = timeNs - _lastTimeNs;
    _lastTimeNs = timeNs;
    return difference;
}

void HeapRecordWriter::beginEvent(RecordKind kind, Function function, uint64_t timeNs)
{
    SmallRecord record(kind, function);
    record.varint(since(timeNs));
    record.appendTo(_events);
}

void HeapRecordWriter::addAllocate(uint64_t timeNs, Function function, uint32_t slot, uint32_t stack,
                                   uint64_t sizeBytes, uint64_t address)
{
    SmallRecord record(RecordKind::kAllocate, function);
    record.varint(since(timeNs));
    record.varint(slot);
    record.varint(stack);
    record.varint(sizeBytes);
    record.difference(address, _lastAddress);
    record.appendTo(_events);
    _lastAddress = address;
    ++_pendingEvents;
}

void HeapRecordWriter::addFree(uint64_t timeNs, Function function, uint32_t slot)
{
    SmallRecord record(RecordKind::kFree, function);
    record.varint(since(timeNs));
    record.varint(slot);
    record.appendTo(_events);
    ++_pendingEvents;
}

void HeapRecordWriter::addFreeUnknown(uint64_t timeNs, Function function, uint64_t address)
{
    SmallRecord record(RecordKind::kFreeUnknown, function);
    record.varint(since(timeNs));
    record.varint(address);
    record.appendTo(_events);
    ++_pendingEvents;
}

void HeapRecordWriter::addFreedOutside(uint64_t timeNs, uint32_t slot)
{
    beginEvent(RecordKind::kFreedOutside, Function::kMalloc, timeNs);
    _events.varint(slot);
}

void HeapRecordWriter::addTarget(uint64_t timeNs, const TargetRecord& target)
{
    beginEvent(RecordKind::kTarget, Function::kMalloc, timeNs);
    _events.varint(target.pid);
    _events.varint(target.flags);
    _events.text(std::string_view(target.name).substr(0, kMaxNameBytes));
}

void HeapRecordWriter::addNoTarget(uint64_t timeNs) { beginEvent(RecordKind::kNoTarget, Function::kMalloc, timeNs); }

void HeapRecordWriter::addExit(uint64_t timeNs, uint32_t pid)
{
    beginEvent(RecordKind::kExit, Function::kMalloc, timeNs);
    _events.varint(pid);
}

void HeapRecordWriter::addLost(uint64_t timeNs, LostCause cause, uint64_t total)
{
    beginEvent(RecordKind::kLost, Function::kMalloc, timeNs);
    _events.varint(static_cast<uint8_t>(cause));
    _events.varint(total);
}

void HeapRecordWriter::addFault(uint64_t timeNs, const FaultRecord& fault)
{
    beginEvent(RecordKind::kFault, Function::kMalloc, timeNs);
    _events.varint(static_cast<uint8_t>(fault.fault));
    _events.varint(fault.address);
    _events.varint(fault.byte);
    _events.varint(fault.allocateStack);
    _events.varint(fault.freeStack);
    _events.varint(fault.faultStack);
}

void HeapRecordWriter::addCost(uint64_t timeNs, uint64_t cpuNs)
{
    beginEvent(RecordKind::kCost, Function::kMalloc, timeNs);
    _events.varint(cpuNs);
    _events.varint(totalEvents());
}

void HeapRecordWriter::addCount(uint64_t timeNs, const CountRecord& count)
{
    SmallRecord record(RecordKind::kCount, static_cast<unsigned>(count.counting));
    record.varint(since(timeNs));
    record.varint(count.thread);
    record.varint(count.stack);
    record.varint(count.before);
    record.difference(count.object, _lastObject);
    record.appendTo(_events);
    _lastObject = count.object;
    ++_pendingEvents;
}

void HeapRecordWriter::addClassLook(uint64_t timeNs, uint64_t blocks, uint64_t bytes)
{
    SmallRecord record(RecordKind::kMore, static_cast<unsigned>(MoreKind::kClassLook));
    record.varint(since(timeNs));
    record.varint(blocks);
    record.varint(bytes);
    record.appendTo(_events);
}

void HeapRecordWriter::addClass(uint64_t timeNs, const ClassRecord& of)
{
    SmallRecord record(RecordKind::kMore, static_cast<unsigned>(MoreKind::kClass));
    for (const uint64_t value : {since(timeNs), of.table, of.code, of.blocks, of.bytes})
        record.varint(value);
    record.appendTo(_events);
}

std::span<const std::byte> HeapRecordWriter::message()
{
    _message.clear();
    _message.reserve(sizeBytes());
    _message.little(kMagic);
    _message.little(_version);
    _message.little(uint16_t{0});
    _message.little(_sequence);
    _message.little(_nodesBefore);
    _message.little(static_cast<uint32_t>(_definitions.size()));
    _message.little(uint32_t{0});
    _message.little(_baseTimeNs);
    VNT_CHECK(_message.size() == kHeaderBytes);
    _message.raw(_definitions.view().data(), _definitions.size());
    _message.raw(_events.view().data(), _events.size());
    return _message.view();
}

void HeapRecordWriter::messageSent()
{
    ++_sequence;
    _sentEvents += _pendingEvents;
    _nodesBefore = _nodes;
    _definitions.clear();
    messageDropped();
}

void HeapRecordWriter::messageDropped()
{
    _events.clear();
    _pendingEvents = 0;
    _timed = false;
    _lastAddress = 0;
    _lastObject = 0;
}

} // namespace vnt::heap
