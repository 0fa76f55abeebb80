#include "bundle/exports/ExportSource.h"
#include "records/CensusRecordReader.h"

namespace vnt {

class ExportSource::CensusReading final : public census::CensusRecordHandler {
public:
    CensusReading(ExportSource& source, ExportInstrument& instrument, ExportHandler& handler)
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

    void onSession(const census::SessionRecord& session) override { _instrument.intervalNs = session.intervalNs; }
    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override
    {
        if (isWithin(timeNs))
            _handler.onSweep(timeNs, sweep);
    }
    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override
    {
        if (isWithin(timeNs))
            _handler.onUsage(timeNs, process, usage);
    }
    void onStarted(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        if (isWithin(timeNs))
            _handler.onProcessStarted(timeNs, process);
    }
    void onEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override
    {
        if (isWithin(timeNs))
            _handler.onProcessEnded(timeNs, process, status);
    }
    void onRenamed(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        if (isWithin(timeNs))
            _handler.onProcessRenamed(timeNs, process);
    }
    void onLost(uint64_t timeNs, census::LostCause cause, uint64_t total) override
    {
        static constexpr const char* kCauses[census::kLostCauses] = {"event buffer overrun", "batches dropped",
                                                                     "processes ended unread"};
        uint64_t& told = _lost[static_cast<size_t>(cause)];
        _timeNs = timeNs;
        lost(kCauses[static_cast<size_t>(cause)], total - std::min(told, total));
        told = std::max(told, total);
    }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t, uint64_t) override
    {
        _instrument.recorderCpuNs = std::max(_instrument.recorderCpuNs, cpuNs);
    }
    void onOrphan() override { lost("undefined", 1); }
    void onMissingMessages(uint64_t count) override { lost("messages missing", count); }

private:
    bool isWithin(uint64_t timeNs)
    {
        _timeNs = timeNs;
        return _source.isWithin(timeNs);
    }
    void lost(const char* cause, uint64_t count)
    {
        if (count != 0)
            _source.noteLost(_instrument, _handler, _timeNs, cause, count);
    }

    ExportSource& _source;
    ExportInstrument& _instrument;
    ExportHandler& _handler;
    census::CensusRecordReader _reader;
    uint64_t _lost[census::kLostCauses] = {};
    uint64_t _timeNs = 0;
};

void ExportSource::readProcessCensus(ExportInstrument& instrument, ExportHandler& handler)
{
    CensusReading reading(*this, instrument, handler);
    instrument.messages = forEachMessage(instrument, [&](std::span<const std::byte> message) { reading.add(message); });
}

} // namespace vnt
