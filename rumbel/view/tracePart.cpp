#include "bundle/Instruments.h"
#include "rumbel/report/textLines.h"
#include "rumbel/view/TraceHistory.h"
#include "rumbel/view/parts.h"

namespace vnt::view {
namespace {

Facts factsOf(const TraceTotals& totals, const InstrumentData& data, const MessageTotals& messages)
{
    Facts facts;
    facts.add("Events", grouped(totals.events));
    facts.addLoss("Lost",
                  plural(totals.lost(), "event") + " (" + percent(totals.lost(), totals.lost() + totals.events) + " %)",
                  totals.lost());
    if (totals.nested() != 0)
        facts.add("Nested",
                  "at most " + grouped(totals.nested())
                      + " events of any process within the recording of "
                        "others");
    if (totals.unordered != 0)
        facts.addLoss("Out of order", plural(totals.unordered, "event"), totals.unordered);
    facts.addMessages(messages, totals.missingMessages, totals.damagedMessages);
    facts.addCost(totals.recorderCpuNs, PageBuilder::durationNs(data, totals.firstTimeNs, totals.lastTimeNs));
    return facts;
}

} // namespace

bool addTrace(PageBuilder& page)
{
    const Bundle& bundle = page.bundle();
    const InstrumentData data = bundle.instrument(kKernelTracerId);
    const std::unique_ptr<Symbolizer> symbolizer = bundle.symbolizer(data);
    PageSymbols symbols(*symbolizer, page.functions());
    TraceHistory history(page, symbols);
    MessageTotals messages;
    const TraceTotals totals = readTrace(
        bundle, data, [&history](const TraceEvent& event) { history.add(event); },
        [&symbolizer](uint64_t, uint32_t parent, uint32_t child) { symbolizer->noteFork(parent, child); }, messages);
    page.cover(data, totals.firstTimeNs, totals.lastTimeNs);
    page.addInstrument(data, factsOf(totals, data, messages));
    page.addPart("trace", history.finish());
    return data.hasArchive() || messages.messages != 0;
}

} // namespace vnt::view
