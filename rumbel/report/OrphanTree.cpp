#include "rumbel/report/OrphanTree.h"

#include <algorithm>
#include <map>
#include <ostream>
#include <tuple>

#include "rumbel/report/printable.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

constexpr size_t kMaxDepth = 6; // lists are long: what is deeper is counted
constexpr size_t kShownContents = 24;

class TreeWriter {
public:
    TreeWriter(const OrphanProfile& profile, const OrphanSummary& summary, std::ostream& out);
    void write(size_t top);

private:
    /// Leaks that share a line.
    using Group = std::vector<size_t>;

    [[nodiscard]] std::vector<Group> grouped(const std::vector<size_t>& leaks) const;
    void writeGroup(const Group& group, size_t depth);
    [[nodiscard]] uint64_t heldBytes(const Group& group) const;
    [[nodiscard]] std::string place(const orphans::LeakRecord& leak) const;

    const OrphanProfile& _profile;
    std::ostream& _out;
    std::vector<std::vector<size_t>> _held; ///< by leak
    std::vector<uint64_t> _bytes; ///< of a leak and all that it holds
    std::vector<uint64_t> _blocks;
    std::vector<size_t> _roots;
};

TreeWriter::TreeWriter(const OrphanProfile& profile, const OrphanSummary& summary, std::ostream& out)
    : _profile(profile),
      _out(out),
      _held(profile.leaks.size()),
      _bytes(profile.leaks.size()),
      _blocks(profile.leaks.size(), 1)
{
    for (size_t i = 0; i < profile.leaks.size(); ++i) {
        const orphans::LeakRecord& leak = profile.leaks[i];
        _bytes[i] = leak.sizeBytes;
        if (summary.isSuppressed[i])
            continue;
        (leak.holder == 0 ? _roots : _held[leak.holder - 1]).push_back(i);
    }
    for (size_t i = profile.leaks.size(); i-- > 0;) { // holders stand before what they hold
        const uint32_t holder = profile.leaks[i].holder;
        if (holder == 0 || summary.isSuppressed[i])
            continue;
        _bytes[holder - 1] += _bytes[i];
        _blocks[holder - 1] += _blocks[i];
    }
}

std::string TreeWriter::place(const orphans::LeakRecord& leak) const
{
    const auto path = _profile.paths.find(leak.stack);
    if (path == _profile.paths.end() || path->second.empty())
        return "an unknown place";
    std::string text = shortFunctionName(_profile.symbolizer->symbol(path->second[0]).function);
    if (path->second.size() > 1)
        text += " < " + shortFunctionName(_profile.symbolizer->symbol(path->second[1]).function);
    return text;
}

uint64_t TreeWriter::heldBytes(const Group& group) const
{
    uint64_t sum = 0;
    for (const size_t leak : group)
        sum += _bytes[leak];
    return sum;
}

/// Those that hold nothing and are alike together, the others alone; most bytes first.
std::vector<TreeWriter::Group> TreeWriter::grouped(const std::vector<size_t>& leaks) const
{
    std::map<std::tuple<uint32_t, uint64_t, orphans::Kind, std::string_view>, Group> alike;
    std::vector<Group> groups;
    for (const size_t leak : leaks) {
        const orphans::LeakRecord& record = _profile.leaks[leak];
        if (_held[leak].empty())
            alike[{record.stack, record.sizeBytes, record.kind, _profile.classes[leak]}].push_back(leak);
        else
            groups.push_back({leak});
    }
    for (auto& [key, group] : alike)
        groups.push_back(std::move(group));
    std::stable_sort(groups.begin(), groups.end(),
                     [this](const Group& a, const Group& b) { return heldBytes(a) > heldBytes(b); });
    return groups;
}

void TreeWriter::writeGroup(const Group& group, size_t depth)
{
    const orphans::LeakRecord& leak = _profile.leaks[group.front()];
    const uint64_t blocks = _blocks[group.front()];
    _out << std::string(2 + 2 * depth, ' ');
    if (group.size() > 1)
        _out << vnt::grouped(group.size()) << " x ";
    _out << bytes(leak.sizeBytes) << (leak.kind == orphans::Kind::kCycle ? ", in a cycle" : "")
         << (leak.isNew && _profile.searches.size() > 1 ? ", new" : "");
    if (!_profile.classes[group.front()].empty())
        _out << ", " << printable(_profile.classes[group.front()]);
    _out << "  " << place(leak);
    if (blocks > 1)
        _out << "  keeps " << plural(blocks - 1, "block") << ", " << bytes(_bytes[group.front()] - leak.sizeBytes);
    if (!leak.contents.empty())
        _out << "  " << hexText(std::string_view(leak.contents).substr(0, kShownContents)) << "  "
             << printable(std::string_view(leak.contents).substr(0, kShownContents));
    _out << "\n";
    if (blocks > 1 && depth + 1 >= kMaxDepth) {
        _out << std::string(4 + 2 * depth, ' ') << "and so on\n";
        return;
    }
    for (const Group& held : grouped(_held[group.front()]))
        writeGroup(held, depth + 1);
}

void TreeWriter::write(size_t top)
{
    const std::vector<Group> groups = grouped(_roots);
    const size_t shown = top == 0 ? groups.size() : std::min(top, groups.size());
    _out << "\n";
    for (size_t i = 0; i < shown; ++i)
        writeGroup(groups[i], 0);
    if (shown < groups.size())
        _out << "  and " << vnt::grouped(groups.size() - shown) << " more\n";
}

} // namespace

void writeOrphanTree(const OrphanProfile& profile, const OrphanSummary& summary, size_t top, std::ostream& out)
{
    TreeWriter(profile, summary, out).write(top);
}

std::string hexText(std::string_view bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        text += kDigits[static_cast<unsigned char>(byte) >> 4];
        text += kDigits[static_cast<unsigned char>(byte) & 15];
    }
    return text;
}

} // namespace vnt
