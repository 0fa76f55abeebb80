#include "bundle/RecordSorter.h"
#include "bundle/recordSources.h"
#include "records/StackRecordReader.h"

namespace vnt {
namespace {

constexpr std::string_view kCauses[stacks::kLostCauses] = {
    "ring full", "batch dropped", "throttled", "process events dropped", "malformed", "window full"};

class Source final : public stacks::StackRecordHandler {
public:
    Source(const RecordSink& sink, RecordTotals& totals) : _totals(totals), _sorter(sink, totals) { }

    bool add(std::span<const std::byte> message, Remarks& remarks)
    {
        const Status status = _reader.read(message, *this);
        if (!status.ok()) {
            ++_totals.damagedMessages;
            remarks.add(status.message());
        }
        return _totals.isComplete;
    }
    void finish() { _sorter.finish(); }

private:
    void onSample(const stacks::SampleRecord& sample) override
    {
        const bool isBlocked = sample.blockedNs != 0;
        Record record =
            plainRecord(isBlocked ? RecordKind::kBlocked : RecordKind::kSample, sample.timeNs, sample.thread->pid);
        record.durationNs = isBlocked ? sample.blockedNs : _reader.session().intervalNs;
        record.tid = sample.thread->tid;
        record.thread = sample.thread->name;
        record.isStackWhole = _reader.frames(sample.stack, _frames);
        record.stack = _frames;
        record.stackKey = sample.stack == 0 ? 0 : uint64_t{_reader.generation()} << 32 | sample.stack;
        _sorter.add(record);
    }
    void onOrphan(uint64_t) override { ++_totals.orphans; }
    void onLost(uint64_t timeNs, stacks::LostCause cause, uint64_t newly, uint64_t) override
    {
        const Record::Value values[] = {{"count", static_cast<int64_t>(newly)}};
        _sorter.add(plainRecord(RecordKind::kLost, timeNs, 0, kCauses[static_cast<size_t>(cause)], values));
    }
    void onExec(uint64_t timeNs, uint32_t pid, std::string_view name) override
    {
        _sorter.add(plainRecord(RecordKind::kExec, timeNs, pid, name));
    }
    void onFork(uint64_t timeNs, uint32_t parent, uint32_t child) override
    {
        const Record::Value values[] = {{"child", child}};
        _sorter.add(plainRecord(RecordKind::kFork, timeNs, parent, {}, values));
    }
    void onExit(uint64_t timeNs, uint32_t pid) override { _sorter.add(plainRecord(RecordKind::kExit, timeNs, pid)); }
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t) override
    {
        const Record::Value values[] = {{"processor_ns", static_cast<int64_t>(cpuNs)}};
        _sorter.add(plainRecord(RecordKind::kCost, timeNs, 0, {}, values));
    }
    void onMissingMessages(uint64_t count) override { _totals.missingMessages += count; }

    RecordTotals& _totals;
    RecordSorter _sorter;
    stacks::StackRecordReader _reader;
    std::vector<uint64_t> _frames;
};

} // namespace

RecordTotals readStackRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink)
{
    RecordTotals totals;
    Source source(sink, totals);
    totals.messages = bundle.forEachMessageWhile(
        data, [&](std::span<const std::byte> message) { return source.add(message, bundle.remarks()); });
    source.finish();
    return totals;
}

} // namespace vnt
