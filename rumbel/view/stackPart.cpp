#include "bundle/Instruments.h"
#include "bundle/StackProfileBuilder.h"
#include "rumbel/report/textLines.h"
#include "rumbel/view/CallTree.h"
#include "rumbel/view/TimeGrid.h"
#include "rumbel/view/parts.h"

namespace vnt::view {
namespace {

constexpr size_t kSamples = 0;
constexpr size_t kBlockedNs = 1;
using StackGrid = TimeGrid<2>;

Facts factsOf(const StackProfile& profile, const InstrumentData& data, const MessageTotals& messages)
{
    const ProfileTotals& totals = profile.totals();
    Facts facts;
    facts.add("Samples",
              grouped(totals.all.samples) + ", one every " + duration(totals.session.intervalNs)
                  + " of processor time, in " + plural(profile.threads().size(), "thread"));
    if (totals.blockedRecords != 0)
        facts.add("Waits", grouped(totals.blockedRecords) + ", " + duration(totals.all.blockedNs) + " altogether");
    facts.addLoss("Lost",
                  plural(totals.lost(), "sample") + " (" + percent(totals.lost(), totals.lost() + totals.all.samples)
                      + " %)",
                  totals.lost());
    if (totals.throttled() != 0)
        facts.addLoss("Throttled", plural(totals.throttled(), "sample") + " left out by the kernel", 1);
    facts.addLoss("Truncated", plural(totals.truncated, "stack") + " without the outer frames", totals.truncated);
    facts.addMessages(messages, totals.missingMessages, totals.damagedMessages);
    facts.addCost(totals.recorderCpuNs, PageBuilder::durationNs(data, totals.firstTimeNs, totals.lastTimeNs));
    return facts;
}

/// The profile's call tree with the page's functions; numbers[profile node] is the tree's.
CallTree treeOf(const StackProfile& profile, PageSymbols& symbols, std::vector<uint32_t>& numbers)
{
    CallTree tree;
    numbers.assign(profile.nodes().size(), 0);
    for (size_t node = 1; node < profile.nodes().size(); ++node) {
        const ProfileNode& known = profile.nodes()[node];
        numbers[node] = tree.child(numbers[known.parent], symbols.function(known.symbol));
    }
    return tree;
}

} // namespace

bool addStacks(PageBuilder& page)
{
    const Bundle& bundle = page.bundle();
    const InstrumentData data = bundle.instrument(kStackSamplerId);
    const std::unique_ptr<Symbolizer> symbolizer = bundle.symbolizer(data);
    StackProfileBuilder builder(*symbolizer, bundle.remarks());
    StackGrid grid(page.originNs());
    builder.observe([&grid](uint64_t timeNs, uint32_t thread, uint32_t node, const ProfileWeight& weight) {
        const uint64_t since = weight.blockedNs < timeNs ? timeNs - weight.blockedNs : 0;
        grid.addSpan(since, timeNs, thread, node, {weight.samples, weight.blockedNs});
    });
    const MessageTotals messages =
        bundle.forEachMessage(data, [&](std::span<const std::byte> message) { builder.add(message); });
    const StackProfile profile = builder.take();
    const ProfileTotals& totals = profile.totals();

    PageSymbols symbols(*symbolizer, page.functions());
    std::vector<uint32_t> numbers;
    CallTree tree = treeOf(profile, symbols, numbers);
    grid.renumberNodes(numbers);
    std::vector<uint64_t> weights = grid.weights(tree.count(), kSamples);
    const std::vector<uint64_t> blocked = grid.weights(tree.count(), kBlockedNs);
    for (size_t node = 0; node < weights.size(); ++node)
        weights[node] = weights[node] * std::max<uint64_t>(totals.session.intervalNs, 1) + blocked[node];
    grid.renumberNodes(tree.prune(weights));
    numbers.clear();
    for (const ProfileThread& thread : profile.threads())
        numbers.push_back(page.threads().number(thread.pid, thread.tid, thread.name));
    grid.renumberThreads(numbers);

    page.cover(data, totals.firstTimeNs, totals.lastTimeNs);
    page.addInstrument(data, factsOf(profile, data, messages));
    page.addPart("stacks",
                 {{"intervalNs", totals.session.intervalNs},
                  {"hasBlocked",
                   totals.blockedRecords != 0 || (totals.session.flags & stacks::SessionRecord::kBlockedThreads) != 0},
                  {"tree", tree.json(page.columns())},
                  {"grid", grid.json(page.columns())}});
    return data.hasArchive() || messages.messages != 0;
}

} // namespace vnt::view
