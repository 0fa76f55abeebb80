#include <cinttypes>
#include <cstdio>

#include "bundle/HeapProfileBuilder.h"
#include "bundle/Instruments.h"
#include "rumbel/report/textLines.h"
#include "rumbel/view/HeapHistory.h"
#include "rumbel/view/parts.h"

namespace vnt::view {
namespace {

/// Uses of freed blocks that the page lists; all are counted.
constexpr size_t kMaxFaults = 200;

Facts factsOf(const HeapProfile& profile, const InstrumentData& data, const MessageTotals& messages)
{
    const HeapTotals& totals = profile.totals;
    Facts facts;
    facts.add("Allocated", bytes(totals.all.bytes) + " in " + plural(totals.all.allocations, "block"));
    facts.add("Live at the end", bytes(totals.all.liveBytes) + " in " + plural(totals.all.liveBlocks, "block"));
    facts.add("Peak", bytes(totals.peakBytes));
    if (totals.faults != 0)
        facts.addLoss("Uses of freed blocks", grouped(totals.faults), totals.faults);
    if (totals.noTarget || totals.lostTarget)
        facts.addLoss("Note", "a program ran that did not load the journal", 1);
    facts.addLoss("Lost", plural(totals.lost(), "event"), totals.lost());
    const uint64_t noNode = totals.lostByCause[static_cast<size_t>(heap::LostCause::kNoNode)];
    if (noNode != 0)
        facts.addLoss("Without a stack", plural(noNode, "allocation"), noNode);
    const uint64_t rings = totals.lostByCause[static_cast<size_t>(heap::LostCause::kMalformed)];
    if (rings != 0)
        facts.addLoss("Given up", plural(rings, "thread"), rings);
    facts.addMessages(messages, totals.missingMessages, totals.damagedMessages);
    facts.addCost(totals.recorderCpuNs, PageBuilder::durationNs(data, totals.firstTimeNs, totals.lastTimeNs));
    return facts;
}

Json pathJson(const std::vector<uint32_t>& path, PageSymbols& symbols)
{
    Json list = Json::array();
    for (const uint32_t symbol : path)
        list.push_back(symbols.function(symbol));
    return list;
}

Json faultsJson(const HeapProfile& profile, PageSymbols& symbols)
{
    Json list = Json::array();
    for (const HeapFault& fault : profile.faults) {
        if (list.size() == kMaxFaults)
            break;
        char address[32];
        std::snprintf(address, sizeof address, "0x%" PRIx64, fault.address);
        list.push_back({{"kind", nameOf(fault.fault)},
                        {"address", address},
                        {"byte", fault.byte},
                        {"allocated", pathJson(fault.allocated, symbols)},
                        {"freed", pathJson(fault.freed, symbols)},
                        {"noticed", pathJson(fault.noticed, symbols)}});
    }
    return list;
}

Json sizesJson(const HeapTotals& totals)
{
    Json list = Json::array();
    for (const uint64_t blocks : totals.bySize)
        list.push_back(blocks);
    return list;
}

} // namespace

bool addHeap(PageBuilder& page)
{
    const Bundle& bundle = page.bundle();
    const InstrumentData data = bundle.instrument(kHeapRecorderId);
    const std::unique_ptr<Symbolizer> symbolizer = bundle.symbolizer(data);
    HeapProfileBuilder builder(*symbolizer, bundle.remarks());
    PageSymbols symbols(*symbolizer, page.functions());
    HeapHistory history(page.originNs(), symbols);
    const MessageTotals messages = bundle.forEachMessage(data, [&](std::span<const std::byte> message) {
        builder.add(message);
        history.add(message);
    });
    HeapProfile profile;
    builder.finish(profile);
    const HeapTotals& totals = profile.totals;
    history.finish();

    page.cover(data, totals.firstTimeNs, totals.lastTimeNs);
    page.addInstrument(data, factsOf(profile, data, messages));
    page.addPart("heap",
                 {{"tree", history.tree().json(page.columns())},
                  {"grid", history.grid().json(page.columns())},
                  {"curve", history.curve().json(page.columns())},
                  {"peakBytes", totals.peakBytes},
                  {"peakNs", totals.peakTimeNs - std::min(page.originNs(), totals.peakTimeNs)},
                  {"bySize", sizesJson(totals)},
                  {"faultCount", totals.faults},
                  {"faults", faultsJson(profile, symbols)}});
    return data.hasArchive() || messages.messages != 0;
}

} // namespace vnt::view
