#include "collectors/heap/ModuleSpans.h"

#include <algorithm>
#include <charconv>
#include <string>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxMapsBytes = size_t{32} << 20; // 65,530 lines (vm.max_map_count) of 100 bytes and long paths

/// One line of /proc/PID/maps (proc(5)).
struct Line {
    uint64_t begin = 0;
    uint64_t end = 0;
    bool isCode = false;
    std::string_view path;
};

bool readHex(std::string_view& text, char terminator, uint64_t& value)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (error != std::errc() || end == text.data() + text.size() || *end != terminator)
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()) + 1);
    return true;
}

bool readLine(std::string_view text, Line& line)
{
    if (!readHex(text, '-', line.begin) || !readHex(text, ' ', line.end) || text.size() < 4)
        return false;
    line.isCode = text[2] == 'x';
    for (int i = 0; i < 4; ++i) // permissions, offset, device, inode
        text.remove_prefix(std::min(text.find(' '), text.size() - 1) + 1);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    line.path = text;
    return line.begin < line.end;
}

} // namespace

Result<ModuleSpans> ModuleSpans::read(pid_t pid)
{
    const auto maps = sys::readFile("/proc/" + std::to_string(pid) + "/maps", kMaxMapsBytes);
    if (!maps.ok())
        return maps.status();
    if (maps.value().empty()) // it has ended, and nobody has waited for it
        return Status(Code::kNotFound, "process " + std::to_string(pid) + " has ended");
    return parse(maps.value());
}

ModuleSpans ModuleSpans::parse(std::string_view maps)
{
    ModuleSpans spans;
    size_t first = 0; // of the module at hand
    std::string_view path;
    uint64_t code = 0;
    const auto endModule = [&] {
        if (code == 0) // a file of data
            spans._spans.resize(first);
        for (size_t i = first; i < spans._spans.size(); ++i)
            spans._spans[i].code = code;
        first = spans._spans.size();
        code = 0;
        path = {};
    };
    while (!maps.empty()) {
        Line line;
        const std::string_view text = maps.substr(0, maps.find('\n'));
        maps.remove_prefix(std::min(text.size() + 1, maps.size()));
        if (!readLine(text, line))
            continue;
        const bool isBehind = line.path.empty() && spans._spans.size() > first && spans._spans.back().end == line.begin;
        if (!isBehind && (line.path != path || !line.path.starts_with('/')))
            endModule();
        if (!isBehind && !line.path.starts_with('/'))
            continue;
        if (!isBehind)
            path = line.path;
        if (line.isCode && code == 0)
            code = line.begin;
        if (!line.isCode)
            spans._spans.push_back({line.begin, line.end, 0});
    }
    endModule();
    return spans;
}

uint64_t ModuleSpans::codeOf(uint64_t address) const
{
    const auto next = std::upper_bound(_spans.begin(), _spans.end(), address,
                                       [](uint64_t value, const Span& span) { return value < span.begin; });
    if (next == _spans.begin() || address >= (next - 1)->end)
        return 0;
    return (next - 1)->code;
}

} // namespace vnt
