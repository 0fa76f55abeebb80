#include "bundle/exports/ExportSource.h"

namespace vnt {

void ExportSource::readKernelTracer(ExportInstrument& instrument, ExportHandler& handler)
{
    const trace::Definitions* definitions = nullptr;
    const auto onEvent = [&](const TraceEvent& event) {
        if (&event.definitions() != definitions) {
            definitions = &event.definitions();
            instrument.interner->forgetNumbers();
        }
        if (!isWithin(event.timeNs()) || !isWanted(event.thread()))
            return;
        uint32_t stack = 0;
        if (event.hasStack()) {
            stack = instrument.interner->pathOf(
                event.thread().pid, event.stackNumber(), event.timeNs(), StackInterner::Innermost::kExact,
                [&](std::vector<uint64_t>& addresses) { return event.stack(addresses); });
        }
        handler.onKernelEvent({event, threadOf(instrument, event.thread()), stack});
    };
    TraceReader reader(
        onEvent, [&](uint64_t, uint32_t parent, uint32_t child) { instrument.symbolizer->noteFork(parent, child); },
        _bundle.remarks());
    instrument.messages = forEachMessage(instrument, [&](std::span<const std::byte> message) { reader.add(message); });
    const TraceTotals totals = reader.finish();
    instrument.recorderCpuNs = totals.recorderCpuNs;

    static constexpr const char* kCauses[trace::kLostCauses] = {"ring full", "batches dropped", "malformed",
                                                                "window full", "nested (of any process)"};
    const auto lost = [&](const char* cause, uint64_t count) {
        if (count != 0)
            noteLost(instrument, handler, totals.lastTimeNs, cause, count);
    };
    for (size_t cause = 0; cause < trace::kLostCauses; ++cause)
        lost(kCauses[cause], totals.lostByCause[cause]);
    lost("undefined", totals.orphans);
    lost("messages missing", totals.missingMessages);
    lost("damaged messages", totals.damagedMessages);
}

} // namespace vnt
