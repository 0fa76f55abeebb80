#include "collectors/orphans/MemoryMap.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "platform/base/sys.h"

namespace vnt::orphans {
namespace {

constexpr size_t kMaxMapsBytes = size_t{64} << 20; // 65,530 mappings (vm.max_map_count) take some 8 MiB

bool isDevice(const std::string& path)
{
    return path.starts_with("/dev/") && !path.starts_with("/dev/shm/") && !path.starts_with("/dev/zero");
}

bool parseLine(const std::string& line, MapEntry& entry)
{
    unsigned long long start = 0, end = 0, offset = 0, inode = 0;
    unsigned major = 0, minor = 0;
    char permissions[5] = {};
    int pathAt = 0;
    if (std::sscanf(line.c_str(), "%llx-%llx %4s %llx %x:%x %llu %n", &start, &end, permissions, &offset, &major,
                    &minor, &inode, &pathAt)
            < 7
        || start >= end)
        return false;
    entry.range = {start, end};
    entry.readable = permissions[0] == 'r';
    entry.writable = permissions[1] == 'w';
    entry.shared = permissions[3] == 's';
    entry.anonymous = inode == 0;
    entry.path = line.substr(std::min(static_cast<size_t>(pathAt), line.size()));
    return true;
}

} // namespace

bool MapEntry::canHoldPointers() const
{
    // What the journal writes about all blocks is none of the program's pointers; the kernel's pages have none.
    if (path.starts_with("/memfd:vantora-heap") || path.starts_with("[v") || isDevice(path))
        return false;
    return writable || (anonymous && !shared);
}

bool MapEntry::isCLibrary() const
{
    const std::string_view name = std::string_view(path).substr(path.rfind('/') + 1);
    return name.starts_with("libc.so") || name.starts_with("libc-");
}

std::vector<MapEntry> parseMaps(const std::string& text)
{
    std::vector<MapEntry> entries;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        MapEntry entry;
        if (parseLine(text.substr(at, end - at), entry)
            && (entries.empty() || entries.back().range.end <= entry.range.start))
            entries.push_back(std::move(entry));
        at = end + 1;
    }
    return entries;
}

Result<std::vector<MapEntry>> readMaps(pid_t pid)
{
    ASSIGN_OR_RETURN(const std::string text, sys::readFile("/proc/" + std::to_string(pid) + "/maps", kMaxMapsBytes));
    return parseMaps(text);
}

std::vector<Range> without(const std::vector<Range>& from, const std::vector<Range>& holes)
{
    std::vector<Range> left;
    size_t hole = 0;
    for (Range range : from) {
        while (hole < holes.size() && holes[hole].end <= range.start)
            ++hole;
        for (size_t i = hole; i < holes.size() && holes[i].start < range.end; ++i) {
            if (holes[i].start > range.start)
                left.push_back({range.start, holes[i].start});
            range.start = std::max(range.start, holes[i].end);
            if (range.start >= range.end)
                break;
        }
        if (range.start < range.end)
            left.push_back(range);
    }
    return left;
}

void normalize(std::vector<Range>& ranges)
{
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.start < b.start; });
    size_t kept = 0;
    for (const Range& range : ranges) {
        if (range.start >= range.end)
            continue;
        if (kept != 0 && range.start <= ranges[kept - 1].end)
            ranges[kept - 1].end = std::max(ranges[kept - 1].end, range.end);
        else
            ranges[kept++] = range;
    }
    ranges.resize(kept);
}

} // namespace vnt::orphans
