#include "bundle/exports/ExportSource.h"
#include "records/OrphanRecordReader.h"

namespace vnt {

class ExportSource::OrphanReading final : public orphans::OrphanRecordHandler {
public:
    OrphanReading(ExportSource& source, ExportInstrument& instrument, ExportHandler& handler)
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

    void onSearch(uint64_t timeNs, const orphans::SearchRecord& search) override
    {
        _timeNs = timeNs;
        _pid = search.pid;
        (void)_source.processOf(_instrument, _pid); // a signature's name comes first
        _process = _source._threads.addProcess(_pid, search.name, {});
        _isWithin = _source.isWithin(timeNs);
        if (_isWithin)
            _handler.onSearch({timeNs, _process, search});
    }
    void onLeak(const orphans::LeakRecord& leak) override
    {
        if (_isWithin)
            _handler.onLeak({_timeNs, _process, stackOf(leak), leak});
    }
    void onEnd(const orphans::EndRecord& end, bool) override
    {
        if (end.omitted != 0)
            lost("leaks that were only counted", end.omitted);
        _isWithin = false;
    }
    void onNotSearched(const orphans::NotSearchedRecord& record) override
    {
        _timeNs = record.timeNs;
        if (_source.isWithin(record.timeNs))
            _handler.onNotSearched(record.timeNs, _source.processOf(_instrument, record.pid), record.text);
    }
    void onMissingMessages(uint64_t count) override { lost("messages missing", count); }

private:
    uint32_t stackOf(const orphans::LeakRecord& leak)
    {
        return _instrument.interner->pathOf(
            _pid, leak.stack, leak.timeNs, StackInterner::Innermost::kReturn, [&](std::vector<uint64_t>& addresses) {
                addresses.clear();
                for (uint32_t node = leak.stack; node != 0; node = _reader.node(node).caller) {
                    if (_reader.node(node).cut || !_reader.node(node).known)
                        return false;
                    addresses.push_back(_reader.node(node).address);
                }
                return true;
            });
    }
    void lost(const char* cause, uint64_t count) { _source.noteLost(_instrument, _handler, _timeNs, cause, count); }

    ExportSource& _source;
    ExportInstrument& _instrument;
    ExportHandler& _handler;
    orphans::OrphanRecordReader _reader;
    uint64_t _timeNs = 0;
    uint32_t _pid = 0;
    uint32_t _process = 0;
    bool _isWithin = false;
};

void ExportSource::readOrphanFinder(ExportInstrument& instrument, ExportHandler& handler)
{
    instrument.interner->forgetNumbers();
    OrphanReading reading(*this, instrument, handler);
    instrument.messages = forEachMessage(instrument, [&](std::span<const std::byte> message) { reading.add(message); });
}

} // namespace vnt
