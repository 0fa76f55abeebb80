#include "bundle/TraceReader.h"
#include "bundle/recordSources.h"

namespace vnt {
namespace {

constexpr std::string_view kCauses[trace::kLostCauses] = {"ring full", "batch dropped", "malformed", "window full",
                                                          "nested"};

class Source {
public:
    Source(const RecordSink& sink, RecordTotals& totals) : _output(sink, totals) { }

    void onEvent(const TraceEvent& event)
    {
        if (&event.definitions() != _definitions) {
            _definitions = &event.definitions();
            ++_generation;
        }
        const trace::TypeRecord& type = event.type();
        _values.clear();
        for (size_t i = 0; i < type.values.size(); ++i)
            _values.push_back({type.values[i], static_cast<int64_t>(event.value(i))});
        Record record = plainRecord(RecordKind::kEvent, event.timeNs(), event.thread().pid, type.name, _values);
        record.tid = event.thread().tid;
        record.thread = event.thread().name;
        record.cpu = static_cast<int32_t>(event.cpu());
        record.text = type.label.empty() ? event.text() : std::string_view(type.label);
        if (event.hasStack()) {
            record.isStackWhole = event.stack(_frames);
            record.stack = _frames;
            record.stackKey = _generation << 32 | event.stackNumber();
        }
        _output.add(record);
    }
    void onFork(uint64_t timeNs, uint32_t parent, uint32_t child)
    {
        const Record::Value values[] = {{"child", child}};
        _output.add(plainRecord(RecordKind::kFork, timeNs, parent, {}, values));
    }
    void finish(const TraceTotals& totals)
    {
        for (size_t i = 0; i < trace::kLostCauses; ++i) {
            const Record::Value values[] = {{"count", static_cast<int64_t>(totals.lostByCause[i])}};
            if (totals.lostByCause[i] != 0)
                _output.add(plainRecord(RecordKind::kLost, totals.lastTimeNs, 0, kCauses[i], values));
        }
        const Record::Value values[] = {{"processor_ns", static_cast<int64_t>(totals.recorderCpuNs)}};
        _output.add(plainRecord(RecordKind::kCost, totals.lastTimeNs, 0, {}, values));
    }

private:
    RecordOutput _output;
    const trace::Definitions* _definitions = nullptr;
    uint64_t _generation = 0;
    std::vector<uint64_t> _frames;
    std::vector<Record::Value> _values;
};

} // namespace

RecordTotals readTraceRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink)
{
    RecordTotals totals;
    Source source(sink, totals);
    TraceReader reader([&](const TraceEvent& event) { source.onEvent(event); },
                       [&](uint64_t timeNs, uint32_t parent, uint32_t child) { source.onFork(timeNs, parent, child); },
                       bundle.remarks());
    totals.messages = bundle.forEachMessageWhile(data, [&](std::span<const std::byte> message) {
        reader.add(message);
        return totals.isComplete;
    });
    const TraceTotals trace = reader.finish();
    source.finish(trace);
    totals.orphans = trace.orphans;
    totals.missingMessages = trace.missingMessages;
    totals.damagedMessages = trace.damagedMessages;
    return totals;
}

} // namespace vnt
