#include "bundle/JitSymbols.h"

#include <algorithm>
#include <charconv>
#include <map>

namespace vnt {

namespace {

/// Some 100 bytes each; compilers of large programs tell of some 50,000.
constexpr size_t kMaxSymbols = 1u << 20;
constexpr size_t kMaxNameBytes = 4096;

/// A hexadecimal number and the blank behind it.
bool takeNumber(std::string_view& line, uint64_t& value)
{
    const auto result = std::from_chars(line.data(), line.data() + line.size(), value, 16);
    if (result.ec != std::errc() || result.ptr == line.data() + line.size() || *result.ptr != ' ')
        return false;
    line.remove_prefix(static_cast<size_t>(result.ptr - line.data()) + 1);
    return true;
}

} // namespace

JitSymbols::JitSymbols(std::string_view text)
{
    std::map<uint64_t, Piece> pieces;
    while (!text.empty() && pieces.size() < kMaxSymbols) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        uint64_t start = 0;
        uint64_t size = 0;
        if (!takeNumber(line, start) || !takeNumber(line, size) || size == 0 || size > ~start || line.empty())
            continue;
        // What was there before is gone, as far as the new one reaches.
        const uint64_t end = start + size;
        auto at = pieces.lower_bound(start);
        if (at != pieces.begin() && std::prev(at)->second.end > start)
            --at;
        while (at != pieces.end() && at->second.start < end) {
            Piece old = std::move(at->second);
            at = pieces.erase(at);
            if (old.start < start) {
                Piece before = old;
                before.end = start;
                pieces.emplace(before.start, std::move(before));
            }
            if (old.end > end) {
                old.start = end;
                at = pieces.emplace(old.start, std::move(old)).first;
                break;
            }
        }
        pieces[start] = {start, end, start, std::string(line.substr(0, kMaxNameBytes))};
    }
    _symbols.reserve(pieces.size());
    for (auto& [start, piece] : pieces)
        _symbols.push_back(std::move(piece));
}

std::optional<JitSymbols::Symbol> JitSymbols::find(uint64_t address) const
{
    const auto next = std::upper_bound(_symbols.begin(), _symbols.end(), address,
                                       [](uint64_t wanted, const Piece& piece) { return wanted < piece.start; });
    if (next == _symbols.begin() || address >= (next - 1)->end)
        return std::nullopt;
    return Symbol{(next - 1)->symbolStart, (next - 1)->name};
}

} // namespace vnt
