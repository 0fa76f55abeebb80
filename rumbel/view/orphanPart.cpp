#include <algorithm>

#include "bundle/Instruments.h"
#include "bundle/OrphanProfile.h"
#include "rumbel/report/textLines.h"
#include "rumbel/view/CallTree.h"
#include "rumbel/view/parts.h"

namespace vnt::view {
namespace {

using orphans::SearchRecord;

constexpr size_t kMaxLeaks = 250'000; ///< of a page; holders stand before what they hold, so trees are cut, not torn
constexpr size_t kMaxContentBytes = 48; ///< of a block, in the page

Facts factsOf(const OrphanProfile& profile)
{
    Facts facts;
    for (const std::string& reason : profile.notSearched)
        facts.addLoss("Not searched", pageText(reason), 1);
    if (profile.searches.empty())
        return facts;
    const OrphanSearchTotals& latest = profile.searches.back();
    const SearchRecord& search = latest.search;
    facts.add("Searches", grouped(profile.searches.size()));
    facts.add("Leaks", plural(search.leaks, "block") + ", " + bytes(search.leakedBytes));
    facts.add("Heap", plural(search.blocks, "live block") + ", " + bytes(search.blockBytes));
    facts.addLoss("Lost", plural(search.lostEvents, "event"), search.lostEvents);
    if (!latest.whole)
        facts.addLoss("Note", "the search is not whole", 1);
    if (search.unreadableBytes != 0)
        facts.addLoss("Unreadable", bytes(search.unreadableBytes), 1);
    facts.addMessages({profile.messages, profile.droppedMessages}, profile.missingMessages, profile.damagedMessages);
    facts.add("Pause", "the target stood still for " + duration(search.pauseNs));
    return facts;
}

/// What bears on how far a search can be trusted.
Json notesOf(const OrphanSearchTotals& totals)
{
    static constexpr struct {
        uint32_t flag;
        const char* text;
    } kNotes[] = {
        {SearchRecord::kAtExit, "at the target's exit"},
        {SearchRecord::kInPlace, "read while the target stood still"},
        {SearchRecord::kUnknownBlocks, "blocks from before the recording count as in use"},
        {SearchRecord::kUndecided, "a reallocation was going on"},
        {SearchRecord::kNoRegisters, "registers of a thread could not be read"},
    };
    Json notes = Json::array();
    for (const auto& note : kNotes) {
        if ((totals.search.flags & note.flag) != 0)
            notes.push_back(note.text);
    }
    return notes;
}

Json searchJson(const OrphanSearchTotals& totals, const PageBuilder& page)
{
    const SearchRecord& search = totals.search;
    return {{"number", search.number},     {"timeNs", totals.timeNs - std::min(page.originNs(), totals.timeNs)},
            {"leaks", search.leaks},       {"leakedBytes", search.leakedBytes},
            {"newLeaks", totals.newLeaks}, {"blocks", search.blocks},
            {"pauseNs", search.pauseNs},   {"notes", notesOf(totals)}};
}

/// Nodes of the leaks' stacks, by stack number.
std::unordered_map<uint32_t, uint32_t> nodesOf(const OrphanProfile& profile, PageSymbols& symbols, CallTree& tree)
{
    std::unordered_map<uint32_t, uint32_t> nodes;
    for (const auto& [stack, path] : profile.paths) {
        uint32_t node = 0;
        for (auto symbol = path.rbegin(); symbol != path.rend(); ++symbol)
            node = tree.child(node, symbols.function(*symbol));
        nodes[stack] = node;
    }
    return nodes;
}

Json leaksJson(const OrphanProfile& profile, const std::unordered_map<uint32_t, uint32_t>& nodes, PageBuilder& page)
{
    std::vector<uint64_t> kinds, holders, sizes, stacks, times, addresses, news;
    std::vector<std::string> contents;
    for (const orphans::LeakRecord& leak : profile.leaks) {
        if (sizes.size() == kMaxLeaks)
            break;
        const auto node = nodes.find(leak.stack);
        kinds.push_back(static_cast<uint64_t>(leak.kind));
        holders.push_back(leak.holder <= sizes.size() ? leak.holder : 0);
        sizes.push_back(leak.sizeBytes);
        stacks.push_back(node == nodes.end() ? 0 : node->second);
        times.push_back(leak.timeNs - std::min(page.originNs(), leak.timeNs));
        addresses.push_back(leak.address);
        news.push_back(leak.isNew ? 1 : 0);
        if (!leak.contents.empty()) {
            contents.resize(sizes.size());
            contents.back() = pageText(leak.contents, kMaxContentBytes);
        }
    }
    PageColumns& columns = page.columns();
    return {{"kind", columns.add(kinds)},  {"holder", columns.add(holders)}, {"size", columns.add(sizes)},
            {"node", columns.add(stacks)}, {"time", columns.add(times)},     {"address", columns.add(addresses)},
            {"isNew", columns.add(news)},  {"contents", std::move(contents)}};
}

} // namespace

bool addOrphans(PageBuilder& page)
{
    const Bundle& bundle = page.bundle();
    const InstrumentData data = bundle.instrument(kOrphanFinderId);
    const OrphanProfile profile = readOrphans(bundle, data);
    PageSymbols symbols(*profile.symbolizer, page.functions());
    CallTree tree;
    const auto nodes = nodesOf(profile, symbols, tree);
    page.cover(data, profile.searches.empty() ? 0 : profile.searches.front().timeNs,
               profile.searches.empty() ? 0 : profile.searches.back().timeNs);
    page.addInstrument(data, factsOf(profile));
    Json searches = Json::array();
    for (const OrphanSearchTotals& totals : profile.searches)
        searches.push_back(searchJson(totals, page));
    Json notSearched = Json::array();
    for (const std::string& reason : profile.notSearched)
        notSearched.push_back(pageText(reason));
    page.addPart("orphans",
                 {{"searches", std::move(searches)},
                  {"notSearched", std::move(notSearched)},
                  {"leaks", leaksJson(profile, nodes, page)},
                  {"tree", tree.json(page.columns())}});
    return data.hasArchive() || profile.messages != 0;
}

} // namespace vnt::view
