#include "collectors/unwind/AddressSpaces.h"

#include <algorithm>
#include <utility>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMostEnded = 64; // some 5 KB each
constexpr size_t kMostSpaces = 32768; // the default pid_max; more means lost exit records
constexpr size_t kMostMappings = 65536; // vm.max_map_count
constexpr uint64_t kLookIntervalNs = 250'000'000; // /proc/PID/maps of a large program takes a millisecond

} // namespace

AddressSpace::Mapping* AddressSpace::find(uint64_t address)
{
    const auto next = std::upper_bound(mappings.begin(), mappings.end(), address,
                                       [](uint64_t wanted, const Mapping& mapping) { return wanted < mapping.start; });
    return next == mappings.begin() || address >= (next - 1)->end ? nullptr : &*(next - 1);
}

AddressSpace& AddressSpaces::of(pid_t pid)
{
    if (_latest && _latest->pid == pid)
        return *_latest;
    const auto known = _spaces.find(pid);
    AddressSpace& space = known != _spaces.end() ? known->second : create(pid);
    if (known == _spaces.end())
        (void)refresh(space);
    _latest = &space;
    return space;
}

AddressSpace& AddressSpaces::create(pid_t pid)
{
    if (_spaces.size() >= kMostSpaces) {
        _spaces.clear();
        _ended.clear();
    }
    _latest = nullptr;
    AddressSpace& space = _spaces[pid];
    space = AddressSpace();
    space.pid = pid;
    space.version = ++_lastVersion;
    return space;
}

bool AddressSpaces::refresh(AddressSpace& space)
{
    const uint64_t nowNs = sys::monotonicNs();
    if (nowNs < space.nextLookNs)
        return false;
    space.nextLookNs = nowNs + kLookIntervalNs;
    auto present = procfs::codeMappings(space.pid);
    if (!present.ok() || present.value().empty())
        return false; // it has ended: what was known stays
    bool changed = false;
    for (procfs::CodeMapping& mapping : present.value()) {
        const auto* known = space.find(mapping.start);
        if (known && known->start == mapping.start && known->end == mapping.start + mapping.sizeBytes
            && known->path == mapping.path)
            continue;
        changed = true;
        onMapping(space.pid, mapping.start, mapping.sizeBytes, mapping.fileOffset, mapping.path);
    }
    return changed;
}

void AddressSpaces::onMapping(pid_t pid, uint64_t start, uint64_t sizeBytes, uint64_t fileOffset,
                              const std::string& path)
{
    const auto known = _spaces.find(pid);
    if (known == _spaces.end() || sizeBytes == 0 || sizeBytes > ~start)
        return; // nobody asked for it yet: /proc will tell
    AddressSpace& space = known->second;
    const uint64_t end = start + sizeBytes;
    auto& mappings = space.mappings;
    // What was there before is gone, as far as the new one reaches.
    std::vector<AddressSpace::Mapping> rests;
    for (auto& mapping : mappings) {
        if (mapping.start >= end || mapping.end <= start)
            continue;
        if (mapping.end > end) {
            rests.push_back(mapping);
            rests.back().fileOffset += end - mapping.start;
            rests.back().start = end;
        }
        mapping.end = std::max(mapping.start, std::min(mapping.end, start));
    }
    std::erase_if(mappings, [](const auto& mapping) { return mapping.start >= mapping.end; });
    if (mappings.size() < kMostMappings)
        rests.push_back({start, end, fileOffset, path, false, ModuleTable::kNone, 0});
    for (auto& rest : rests) {
        const auto at = std::upper_bound(mappings.begin(), mappings.end(), rest.start,
                                         [](uint64_t wanted, const auto& mapping) { return wanted < mapping.start; });
        mappings.insert(at, std::move(rest));
    }
    space.version = ++_lastVersion;
}

void AddressSpaces::onExec(pid_t pid)
{
    // Every mapping of the new program is told of.
    create(pid).nextLookNs = sys::monotonicNs() + kLookIntervalNs;
}

void AddressSpaces::onFork(pid_t parent, pid_t child)
{
    const auto known = _spaces.find(parent);
    if (parent == child || known == _spaces.end())
        return;
    const auto before = _spaces.find(child);
    if (before != _spaces.end() && !before->second.ended)
        return; // the child's own records stood in another ring and came first
    AddressSpace copy = known->second; // the child may be gone before it is asked for
    AddressSpace& space = create(child);
    space.mappings = std::move(copy.mappings);
    space.tails = std::move(copy.tails);
}

void AddressSpaces::onExit(pid_t pid)
{
    const auto known = _spaces.find(pid);
    if (known == _spaces.end() || known->second.ended)
        return;
    known->second.ended = true;
    _ended.push_back(pid);
    if (_ended.size() <= kMostEnded)
        return;
    const auto oldest = _spaces.find(_ended.front());
    _ended.pop_front();
    if (oldest == _spaces.end() || !oldest->second.ended)
        return; // the number went to a new process
    _latest = nullptr;
    _spaces.erase(oldest);
}

} // namespace vnt
