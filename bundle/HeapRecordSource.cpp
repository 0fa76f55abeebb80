#include <unordered_map>

#include "bundle/recordSources.h"
#include "records/HeapRecordReader.h"

namespace vnt {
namespace {

constexpr std::string_view kCauses[heap::kLostCauses] = {"ring full", "batch dropped", "too many threads",
                                                         "nested",    "malformed",     "allocations without stack"};
constexpr std::string_view kFunctionNames[heap::kFunctions] = {"malloc",  "calloc",       "realloc",
                                                               "aligned", "operator new", "operator new[]"};

class Source final : public heap::HeapRecordHandler {
public:
    Source(const RecordSink& sink, RecordTotals& totals) : _totals(totals), _output(sink, totals) { }

    bool add(std::span<const std::byte> message, Remarks& remarks)
    {
        const Status status = _reader.read(message, *this);
        if (!status.ok()) {
            ++_totals.damagedMessages;
            remarks.add(status.message());
        }
        return _totals.isComplete;
    }

private:
    /// Where a live block is, so that its free can tell.
    struct Block {
        uint64_t address = 0;
        uint64_t sizeBytes = 0;
    };
    void addWithStack(Record record, uint32_t stack)
    {
        _frames.clear();
        for (uint32_t number = stack; number != 0; number = _reader.node(number).caller) {
            const auto& node = _reader.node(number);
            if (node.cut || !node.known) {
                record.isStackWhole = false;
                break;
            }
            _frames.push_back(node.address);
        }
        record.stack = _frames;
        record.innermost = FrameRole::kReturn; // in the function that called the allocator
        record.stackKey = stack == 0 ? 0 : _target << 32 | stack;
        _output.add(record);
    }
    void onAllocate(const heap::AllocateRecord& allocation) override
    {
        _blocks[allocation.slot] = {allocation.address, allocation.sizeBytes};
        const Record::Value values[] = {{"address", static_cast<int64_t>(allocation.address)},
                                        {"size", static_cast<int64_t>(allocation.sizeBytes)},
                                        {"slot", allocation.slot}};
        addWithStack(plainRecord(RecordKind::kAllocation, allocation.timeNs, _pid,
                                 kFunctionNames[static_cast<size_t>(allocation.function)], values),
                     allocation.stack);
    }
    void addFree(uint64_t timeNs, uint64_t address, uint64_t sizeBytes, int64_t slot)
    {
        const Record::Value values[] = {
            {"address", static_cast<int64_t>(address)}, {"size", static_cast<int64_t>(sizeBytes)}, {"slot", slot}};
        _output.add(plainRecord(RecordKind::kFree, timeNs, _pid, {}, values));
    }
    void onFree(uint64_t timeNs, heap::Function, uint32_t slot) override { onFreedOutside(timeNs, slot); }
    void onFreedOutside(uint64_t timeNs, uint32_t slot) override
    {
        const auto freed = _blocks.find(slot);
        if (freed == _blocks.end())
            return addFree(timeNs, 0, 0, -1);
        addFree(timeNs, freed->second.address, freed->second.sizeBytes, slot);
        _blocks.erase(freed);
    }
    void onFreeUnknown(uint64_t timeNs, heap::Function, uint64_t address) override { addFree(timeNs, address, 0, -1); }
    void onTarget(uint64_t timeNs, const heap::TargetRecord& target) override
    {
        _blocks.clear();
        _pid = target.pid;
        ++_target;
        _output.add(plainRecord(RecordKind::kHeapTarget, timeNs, target.pid, target.name));
    }
    void onExit(uint64_t timeNs, uint32_t pid) override { _output.add(plainRecord(RecordKind::kExit, timeNs, pid)); }
    void onLost(uint64_t timeNs, heap::LostCause cause, uint64_t newly, uint64_t) override
    {
        const Record::Value values[] = {{"count", static_cast<int64_t>(newly)}};
        _output.add(plainRecord(RecordKind::kLost, timeNs, 0, kCauses[static_cast<size_t>(cause)], values));
    }
    void onFault(uint64_t timeNs, const heap::FaultRecord& fault) override
    {
        const Record::Value values[] = {{"address", static_cast<int64_t>(fault.address)},
                                        {"byte", static_cast<int64_t>(fault.byte)}};
        Record record = plainRecord(RecordKind::kHeapFault, timeNs, _pid, nameOf(fault.fault), values);
        const std::pair<std::string_view, uint32_t> stacks[] = {
            {"allocated", fault.allocateStack}, {"freed", fault.freeStack}, {"noticed", fault.faultStack}};
        for (const auto& [whose, stack] : stacks) {
            record.text = whose;
            addWithStack(record, stack);
        }
    }
    void onCount(uint64_t timeNs, const heap::CountRecord& count) override
    {
        const Record::Value values[] = {{"address", static_cast<int64_t>(count.object)},
                                        {"change", heap::changeOf(count.counting)},
                                        {"before", static_cast<int64_t>(count.before)}};
        Record record = plainRecord(RecordKind::kCount, timeNs, _pid, nameOf(count.counting), values);
        record.tid = count.thread;
        addWithStack(record, count.stack);
    }
    void onClassLook(uint64_t timeNs, uint64_t blocks, uint64_t bytes) override
    {
        const Record::Value values[] = {{"blocks", static_cast<int64_t>(blocks)},
                                        {"bytes", static_cast<int64_t>(bytes)}};
        _output.add(plainRecord(RecordKind::kClassLook, timeNs, _pid, {}, values));
    }
    void onClass(uint64_t timeNs, const heap::ClassRecord& found) override
    {
        const Record::Value values[] = {{"table", static_cast<int64_t>(found.table)},
                                        {"code", static_cast<int64_t>(found.code)},
                                        {"blocks", static_cast<int64_t>(found.blocks)},
                                        {"bytes", static_cast<int64_t>(found.bytes)}};
        _output.add(plainRecord(RecordKind::kClass, timeNs, _pid, {}, values));
    }
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t) override
    {
        const Record::Value values[] = {{"processor_ns", static_cast<int64_t>(cpuNs)}};
        _output.add(plainRecord(RecordKind::kCost, timeNs, 0, {}, values));
    }
    void onMissingMessages(uint64_t count) override { _totals.missingMessages += count; }

    RecordTotals& _totals;
    RecordOutput _output;
    heap::HeapRecordReader _reader;
    std::unordered_map<uint32_t, Block> _blocks; // alive, by slot; a table by number would let a forged one grow it
    std::vector<uint64_t> _frames;
    uint32_t _pid = 0;
    uint64_t _target = 0;
};

} // namespace

RecordTotals readHeapRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink)
{
    RecordTotals totals;
    Source source(sink, totals);
    totals.messages = bundle.forEachMessageWhile(
        data, [&](std::span<const std::byte> message) { return source.add(message, bundle.remarks()); });
    return totals;
}

} // namespace vnt
