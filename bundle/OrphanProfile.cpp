#include "bundle/OrphanProfile.h"

#include <algorithm>

#include "records/OrphanRecordReader.h"

namespace vnt {
namespace {

using orphans::SearchRecord;

class Builder final : private orphans::OrphanRecordHandler {
public:
    Builder(OrphanProfile& profile, Remarks& remarks, const TimeSpan& span)
        : _profile(profile),
          _remarks(remarks),
          _span(span)
    {
    }

    void add(std::span<const std::byte> message)
    {
        const Status status = _reader.read(message, *this);
        if (status.ok())
            return;
        ++_profile.damagedMessages;
        _remarks.add(status.message());
    }
    void finish();

private:
    void onSearch(uint64_t timeNs, const SearchRecord& search) override
    {
        _isWanted = _span.contains(timeNs);
        if (!_isWanted)
            return;
        OrphanSearchTotals& totals = _profile.searches.emplace_back();
        totals.search = search;
        totals.timeNs = timeNs;
        _profile.leaks.clear();
    }
    void onLeak(const orphans::LeakRecord& leak) override
    {
        if (!_isWanted)
            return; // its search is lost, or at another time
        _profile.searches.back().newLeaks += leak.isNew;
        _profile.leaks.push_back(leak);
        _profile.leaks.back().holder =
            std::min<uint32_t>(leak.holder, static_cast<uint32_t>(_profile.leaks.size()) - 1);
    }
    void onEnd(const orphans::EndRecord& end, bool whole) override
    {
        if (!_isWanted)
            return;
        _profile.searches.back().omitted = end.omitted;
        _profile.searches.back().whole = whole;
    }
    void onNotSearched(const orphans::NotSearchedRecord& record) override
    {
        _profile.notSearched.push_back(record.text);
        _remarks.add("not searched for leaks: " + record.text);
    }
    void onMissingMessages(uint64_t count) override { _profile.missingMessages += count; }
    void namePath(uint32_t stack, uint32_t pid, uint64_t timeNs);

    OrphanProfile& _profile;
    Remarks& _remarks;
    const TimeSpan _span;
    bool _isWanted = false; ///< the search at hand
    orphans::OrphanRecordReader _reader;
};

void Builder::namePath(uint32_t stack, uint32_t pid, uint64_t timeNs)
{
    const auto [place, added] = _profile.paths.try_emplace(stack);
    if (!added)
        return;
    for (uint32_t node = stack; node != 0; node = _reader.node(node).caller) {
        const auto& frame = _reader.node(node);
        place->second.push_back(
            frame.cut ? Symbolizer::kTruncated
                      : _profile.symbolizer->resolve(pid, frame.address, timeNs, FrameRole::kReturn).symbol);
    }
}

void Builder::finish()
{
    if (_profile.searches.empty())
        return;
    const OrphanSearchTotals& latest = _profile.searches.back();
    for (const orphans::LeakRecord& leak : _profile.leaks) {
        if (leak.stack != 0)
            namePath(leak.stack, latest.search.pid, leak.timeNs);
        _profile.classes.push_back(
            leak.table == 0 ? std::string_view()
                            : _profile.symbolizer->className(latest.search.pid, leak.table, leak.code, latest.timeNs));
    }
}

/// What makes a result less than certain.
void remark(const OrphanSearchTotals& totals, Remarks& remarks)
{
    const SearchRecord& search = totals.search;
    const auto add = [&](bool condition, const std::string& text) {
        if (condition)
            remarks.add(text);
    };
    add(!totals.whole, "a search for leaks is not whole in the bundle: some of its leaks are missing");
    add(totals.omitted != 0,
        std::to_string(totals.omitted) + " leaks are only counted: there are too many to be told one by one");
    add(search.lostEvents != 0,
        "the journal lost " + std::to_string(search.lostEvents)
            + " allocations or frees: leaks may be missing, and some may be blocks that were freed");
    add((search.flags & SearchRecord::kUnknownBlocks) != 0 && search.lostEvents == 0,
        "blocks older than the journal were taken as in use: leaks among them, and what only old contents of freed "
        "memory point to, are not found");
    add((search.flags & SearchRecord::kUndecided) != 0,
        "a reallocation was in progress while the target was searched: what its thread could reach was taken as in "
        "use");
    add((search.flags & SearchRecord::kNoRegisters) != 0,
        "the registers of a thread could not be read: what only they hold is told as leaked");
    add(search.unreadableBytes != 0,
        std::to_string(search.unreadableBytes)
            + " bytes of the target could not be read: what only they point to is told as leaked");
    add((search.flags & SearchRecord::kInPlace) != 0,
        "the target was too large to be copied and stood still for the whole search");
}

} // namespace

OrphanProfile readOrphans(const Bundle& bundle, const InstrumentData& data, const ReadingOptions& options)
{
    Remarks& remarks = bundle.remarks();
    OrphanProfile profile;
    profile.symbolizer = bundle.symbolizer(data);
    Builder builder(profile, remarks, options.span);
    const MessageTotals totals =
        bundle.forEachMessage(data, [&](std::span<const std::byte> message) { builder.add(message); });
    builder.finish();
    profile.messages = totals.messages;
    profile.droppedMessages = totals.dropped;
    if (!profile.searches.empty())
        remark(profile.searches.back(), remarks);
    return profile;
}

namespace {

bool isNamed(const std::vector<uint32_t>& path, const Symbolizer& symbolizer, const Suppressions& suppressions)
{
    return std::any_of(path.begin(), path.end(),
                       [&](uint32_t symbol) { return suppressions.matches(symbolizer.symbol(symbol)); });
}

} // namespace

OrphanSummary summarizeOrphans(const OrphanProfile& profile, const Suppressions& suppressions)
{
    OrphanSummary summary;
    std::unordered_map<uint32_t, bool> namedStacks;
    for (const auto& [stack, path] : profile.paths)
        namedStacks[stack] = !suppressions.empty() && isNamed(path, *profile.symbolizer, suppressions);
    std::unordered_map<uint32_t, size_t> indexes; // symbol -> site
    for (const orphans::LeakRecord& leak : profile.leaks) {
        const auto path = profile.paths.find(leak.stack);
        const bool suppressed = (path != profile.paths.end() && namedStacks[leak.stack])
            || (leak.holder != 0 && summary.isSuppressed[leak.holder - 1]);
        summary.isSuppressed.push_back(suppressed);
        if (suppressed) {
            summary.suppressed.add(leak);
            continue;
        }
        summary.shown.add(leak);
        const bool hasPath = path != profile.paths.end() && !path->second.empty();
        const uint32_t symbol = hasPath ? path->second.front() : Symbolizer::kNoStack;
        const auto [index, added] = indexes.emplace(symbol, summary.sites.size());
        if (added) {
            OrphanSite& site = summary.sites.emplace_back();
            site.symbol = symbol;
            for (size_t i = 1; hasPath && i < std::min(path->second.size(), OrphanSite::kMaxCallers + 1); ++i)
                site.callers.push_back(path->second[i]);
        }
        summary.sites[index->second].counts.add(leak);
    }
    std::stable_sort(summary.sites.begin(), summary.sites.end(),
                     [](const OrphanSite& a, const OrphanSite& b) { return a.counts.bytes > b.counts.bytes; });
    return summary;
}

} // namespace vnt
