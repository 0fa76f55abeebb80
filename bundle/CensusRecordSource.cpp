#include <algorithm>

#include "bundle/RecordSorter.h"
#include "bundle/recordSources.h"
#include "records/CensusRecordReader.h"

namespace vnt {
namespace {

constexpr std::string_view kCauses[census::kLostCauses] = {"process events lost", "batch dropped", "ended unread"};
/// By census::Field.
constexpr std::string_view kFieldNames[census::kFields] = {
    "processor_ns", "user_ms",       "system_ms",    "resident_kib", "shared_kib",         "swap_kib",
    "threads",      "descriptors",   "minor_faults", "major_faults", "voluntary_switches", "involuntary_switches",
    "read_bytes",   "written_bytes", "state"};

class Source final : public census::CensusRecordHandler {
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
    void addProcess(RecordKind kind, uint64_t timeNs, const census::ProcessRecord& process,
                    std::span<const Record::Value> values)
    {
        Record record = plainRecord(kind, timeNs, process.pid, process.name, values);
        record.tid = process.pid;
        record.thread = process.name;
        record.text = process.executable;
        _sorter.add(record);
    }
    void addProcess(RecordKind kind, uint64_t timeNs, const census::ProcessRecord& process)
    {
        const Record::Value values[] = {{"parent", process.parent}, {"uid", process.uid}};
        addProcess(kind, timeNs, process, values);
    }
    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override
    {
        const Record::Value values[] = {{"processes", sweep.processes},
                                        {"busy_ms", static_cast<int64_t>(sweep.busyMs)},
                                        {"whole_ms", static_cast<int64_t>(sweep.wholeMs)},
                                        {"available_kib", static_cast<int64_t>(sweep.availableKiB)}};
        _sorter.add(plainRecord(RecordKind::kSweep, timeNs, 0, {}, values));
    }
    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override
    {
        Record::Value values[census::kFields];
        for (size_t i = 0; i < census::kFields; ++i)
            values[i] = {kFieldNames[i], usage[i]};
        addProcess(RecordKind::kProcessUsage, timeNs, process, values);
    }
    void onStarted(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        addProcess(RecordKind::kProcessStarted, timeNs, process);
    }
    void onRenamed(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        addProcess(RecordKind::kProcessRenamed, timeNs, process);
    }
    void onEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override
    {
        const Record::Value values[] = {{"status", status}};
        addProcess(RecordKind::kProcessEnded, timeNs, process, values);
    }
    void onLost(uint64_t timeNs, census::LostCause cause, uint64_t total) override
    {
        uint64_t& known = _lost[static_cast<size_t>(cause)];
        const Record::Value values[] = {{"count", static_cast<int64_t>(total - std::min(known, total))}};
        known = std::max(known, total);
        _sorter.add(plainRecord(RecordKind::kLost, timeNs, 0, kCauses[static_cast<size_t>(cause)], values));
    }
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t, uint64_t) override
    {
        const Record::Value values[] = {{"processor_ns", static_cast<int64_t>(cpuNs)}};
        _sorter.add(plainRecord(RecordKind::kCost, timeNs, 0, {}, values));
    }
    void onOrphan() override { ++_totals.orphans; }
    void onMissingMessages(uint64_t count) override { _totals.missingMessages += count; }

    RecordTotals& _totals;
    RecordSorter _sorter; // a sweep takes a while, and what began meanwhile is told behind it with its own time
    census::CensusRecordReader _reader;
    uint64_t _lost[census::kLostCauses] = {};
};

} // namespace

RecordTotals readCensusRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink)
{
    RecordTotals totals;
    Source source(sink, totals);
    totals.messages = bundle.forEachMessageWhile(
        data, [&](std::span<const std::byte> message) { return source.add(message, bundle.remarks()); });
    source.finish();
    return totals;
}

} // namespace vnt
