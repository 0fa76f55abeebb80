#include "bundle/exports/ExportSource.h"
#include "records/HeapRecordReader.h"

namespace vnt {

/// Knows the live blocks, so that the end of one can be told with its size and stack.
class ExportSource::HeapReading final : public heap::HeapRecordHandler {
public:
    HeapReading(ExportSource& source, ExportInstrument& instrument, ExportHandler& handler)
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

    void onAllocate(const heap::AllocateRecord& record) override
    {
        _timeNs = record.timeNs;
        Block& block = blockAt(record.slot);
        if (block.isLive)
            release(block); // its free is lost
        block = {{record.timeNs, process(), stackOf(record.stack), record.sizeBytes, record.address, record.function},
                 true};
        if (_source.isWithin(record.timeNs))
            _handler.onAllocation(block.allocation);
    }
    void onFree(uint64_t timeNs, heap::Function, uint32_t slot) override { releaseSlot(timeNs, slot); }
    void onFreedOutside(uint64_t timeNs, uint32_t slot) override { releaseSlot(timeNs, slot); }
    void onTarget(uint64_t timeNs, const heap::TargetRecord& target) override
    {
        _timeNs = timeNs;
        for (const auto& piece : _pieces) {
            for (size_t i = 0; piece && i < kBlocksPerPiece; ++i) {
                if (piece[i].isLive)
                    release(piece[i]);
            }
        }
        _pieces.clear();
        if ((target.flags & heap::TargetRecord::kNoJournal) != 0)
            return;
        _pid = target.pid;
        _instrument.interner->forgetNumbers();
        (void)process(); // a signature's name comes first
        (void)_source._threads.addProcess(_pid, target.name, {});
    }
    void onFault(uint64_t timeNs, const heap::FaultRecord& record) override
    {
        _timeNs = timeNs;
        if (!_source.isWithin(timeNs))
            return;
        const auto stack = [&](uint32_t number) { return number == 0 ? 0 : stackOf(number); };
        _handler.onFault({timeNs, process(), record.fault, record.address, record.byte, stack(record.allocateStack),
                          stack(record.freeStack), stack(record.faultStack)});
    }
    void onCount(uint64_t timeNs, const heap::CountRecord& record) override
    {
        _timeNs = timeNs;
        if (_source.isWithin(timeNs))
            _handler.onCount({timeNs, process(), record.thread, record.counting, record.object, record.before,
                              stackOf(record.stack)});
    }
    void onLost(uint64_t timeNs, heap::LostCause cause, uint64_t newly, uint64_t) override
    {
        static constexpr const char* kCauses[heap::kLostCauses] = {
            "ring full",          "batches dropped", "too many threads",
            "in signal handlers", "rings given up",  "stacks only: too many different ones"};
        _timeNs = timeNs;
        lost(kCauses[static_cast<size_t>(cause)], newly);
    }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t) override { _instrument.recorderCpuNs = cpuNs; }
    void onMissingMessages(uint64_t count) override { lost("messages missing", count); }

private:
    struct Block {
        ExportAllocation allocation;
        bool isLive = false;
    };
    /// The table grows by pieces: what one record names costs a piece at most.
    static constexpr size_t kBlocksPerPiece = 4096;

    Block& blockAt(uint32_t slot)
    {
        const size_t piece = slot / kBlocksPerPiece;
        if (piece >= _pieces.size())
            _pieces.resize(piece + 1);
        if (!_pieces[piece])
            _pieces[piece] = std::make_unique<Block[]>(kBlocksPerPiece);
        return _pieces[piece][slot % kBlocksPerPiece];
    }
    void releaseSlot(uint64_t timeNs, uint32_t slot)
    {
        _timeNs = timeNs;
        const size_t piece = slot / kBlocksPerPiece;
        if (piece >= _pieces.size() || !_pieces[piece] || !_pieces[piece][slot % kBlocksPerPiece].isLive)
            return;
        release(_pieces[piece][slot % kBlocksPerPiece]);
    }
    void release(Block& block)
    {
        block.isLive = false;
        if (_source.isWithin(_timeNs) && _source.isWithin(block.allocation.timeNs))
            _handler.onFree({_timeNs, block.allocation});
    }
    uint32_t process() { return _source.processOf(_instrument, _pid); }
    uint32_t stackOf(uint32_t stack)
    {
        return _instrument.interner->pathOf(
            _pid, stack, _timeNs, StackInterner::Innermost::kReturn, [&](std::vector<uint64_t>& addresses) {
                addresses.clear();
                for (uint32_t node = stack; node != 0; node = _reader.node(node).caller) {
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
    heap::HeapRecordReader _reader;
    std::vector<std::unique_ptr<Block[]>> _pieces; ///< by slot
    uint64_t _timeNs = 0;
    uint32_t _pid = 0;
};

void ExportSource::readHeapRecorder(ExportInstrument& instrument, ExportHandler& handler)
{
    instrument.interner->forgetNumbers();
    HeapReading reading(*this, instrument, handler);
    instrument.messages = forEachMessage(instrument, [&](std::span<const std::byte> message) { reading.add(message); });
}

} // namespace vnt
