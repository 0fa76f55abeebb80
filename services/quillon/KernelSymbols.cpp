#include "services/quillon/KernelSymbols.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxKallsymsBytes = 256u << 20;

struct Line {
    uint64_t address = 0;
    std::string_view name; // with the module, tab-separated
};

/// "address type name[\t[module]]"; only text symbols stand for code.
bool parseLine(std::string_view text, Line& line)
{
    const size_t blank = text.find(' ');
    if (blank == std::string_view::npos || text.size() < blank + 4)
        return false;
    const char type = text[blank + 1];
    if (type != 't' && type != 'T' && type != 'w' && type != 'W')
        return false;
    const auto parsed = std::from_chars(text.data(), text.data() + blank, line.address, 16);
    line.name = text.substr(blank + 3);
    return parsed.ec == std::errc() && line.address != 0;
}

} // namespace

std::vector<KernelSymbol> kernelSymbolsIn(const std::string& kallsyms, std::vector<uint64_t> addresses)
{
    std::vector<Line> lines;
    for (size_t start = 0; start < kallsyms.size();) {
        const size_t end = std::min(kallsyms.find('\n', start), kallsyms.size());
        Line line;
        if (parseLine(std::string_view(kallsyms).substr(start, end - start), line))
            lines.push_back(line);
        start = end + 1;
    }
    std::stable_sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) { return a.address < b.address; });
    std::sort(addresses.begin(), addresses.end());
    std::vector<KernelSymbol> symbols;
    size_t lastTaken = lines.size();
    for (const uint64_t address : addresses) {
        auto after = std::upper_bound(lines.begin(), lines.end(), address,
                                      [](uint64_t value, const Line& line) { return value < line.address; });
        if (after == lines.begin())
            continue;
        // Of several names of one address the first is taken, as the kernel's own traces do.
        const uint64_t start = std::prev(after)->address;
        auto covering = std::lower_bound(lines.begin(), lines.end(), start,
                                         [](const Line& line, uint64_t value) { return line.address < value; });
        const auto index = static_cast<size_t>(covering - lines.begin());
        if (index == lastTaken)
            continue;
        lastTaken = index;
        std::string name(covering->name);
        std::replace(name.begin(), name.end(), '\t', ' ');
        symbols.push_back({covering->address, std::move(name)});
    }
    return symbols;
}

std::vector<KernelSymbol> kernelSymbolsFor(std::vector<uint64_t> addresses)
{
    const auto text = sys::readFile("/proc/kallsyms", kMaxKallsymsBytes);
    return text.ok() ? kernelSymbolsIn(text.value(), std::move(addresses)) : std::vector<KernelSymbol>();
}

} // namespace vnt
