#include "bundle/exports/ExportSource.h"
#include "records/StackRecordReader.h"

namespace vnt {

class ExportSource::StackReading final : public stacks::StackRecordHandler {
public:
    StackReading(ExportSource& source, ExportInstrument& instrument, ExportHandler& handler)
        : _source(source),
          _instrument(instrument),
          _handler(handler)
    {
    }

    void add(std::span<const std::byte> message)
    {
        const Status status = _reader.read(message, *this);
        if (status.ok())
            return;
        _source._bundle.remarks().add(status.message());
        lost("damaged messages", 1);
    }

    void onGeneration(uint32_t) override { _instrument.interner->forgetNumbers(); }
    void onSession(const stacks::SessionRecord& session) override
    {
        if (session.intervalNs != 0)
            _instrument.intervalNs = session.intervalNs;
    }
    void onSample(const stacks::SampleRecord& record) override
    {
        _timeNs = record.timeNs;
        if (!_source.isWithin(record.timeNs) || !_source.isWanted(*record.thread))
            return;
        ExportSample sample;
        sample.timeNs = record.timeNs;
        sample.thread = _source.threadOf(_instrument, *record.thread);
        sample.stack = _instrument.interner->pathOf(
            record.thread->pid, record.stack, record.timeNs, StackInterner::Innermost::kExact,
            [&](std::vector<uint64_t>& addresses) { return _reader.frames(record.stack, addresses); });
        sample.isBlocked = record.blockedNs != 0;
        // Without a known interval each sample counts one.
        sample.weightNs = sample.isBlocked ? record.blockedNs : std::max<uint64_t>(_instrument.intervalNs, 1);
        _handler.onSample(sample);
    }
    void onOrphan(uint64_t timeNs) override
    {
        _timeNs = timeNs;
        lost("undefined", 1);
    }
    void onLost(uint64_t timeNs, stacks::LostCause cause, uint64_t newly, uint64_t) override
    {
        static constexpr const char* kCauses[stacks::kLostCauses] = {
            "ring full", "batches dropped", "throttled", "process events dropped", "malformed", "window full"};
        _timeNs = timeNs;
        lost(kCauses[static_cast<size_t>(cause)], newly);
    }
    void onFork(uint64_t, uint32_t parent, uint32_t child) override { _instrument.symbolizer->noteFork(parent, child); }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t) override
    {
        _instrument.recorderCpuNs = std::max(_instrument.recorderCpuNs, cpuNs);
    }
    void onMissingMessages(uint64_t count) override { lost("messages missing", count); }

private:
    void lost(const char* cause, uint64_t count) { _source.noteLost(_instrument, _handler, _timeNs, cause, count); }

    ExportSource& _source;
    ExportInstrument& _instrument;
    ExportHandler& _handler;
    stacks::StackRecordReader _reader;
    uint64_t _timeNs = 0;
};

void ExportSource::readStackSampler(ExportInstrument& instrument, ExportHandler& handler)
{
    StackReading reading(*this, instrument, handler);
    instrument.messages = forEachMessage(instrument, [&](std::span<const std::byte> message) { reading.add(message); });
}

} // namespace vnt
