#include "bundle/ReferenceCounts.h"

#include <algorithm>
#include <map>

namespace vnt {
namespace {

constexpr size_t kMaxGroups = 1000; ///< nobody reads more; all objects are counted

} // namespace

ReferenceCountBuilder::Use& ReferenceCountBuilder::useOf(Object& object, uint32_t stack, uint32_t pid, uint64_t timeNs)
{
    for (Use& use : object.uses) {
        if (use.stack == stack)
            return use;
    }
    if (object.uses.size() >= kMaxUses)
        return object.uses.back();
    return object.uses.emplace_back(Use{stack, pid, timeNs, 0, 0});
}

void ReferenceCountBuilder::add(uint64_t timeNs, uint32_t pid, const heap::CountRecord& record)
{
    const int change = heap::changeOf(record.counting);
    ++(change > 0 ? _counts.retains : change < 0 ? _counts.releases : _counts.unchanged);
    if (_objects.size() >= kMaxObjects && _objects.count(record.object) == 0) {
        ++_counts.notFollowed;
        return;
    }
    const auto [place, isNew] = _objects.try_emplace(record.object);
    Object& object = place->second;
    if (isNew) {
        ++_counts.objects;
        object.firstNs = timeNs;
    } else if (record.before != 0 && object.count != 0) {
        object.unseen += static_cast<int64_t>(record.before - object.count);
    }
    if (change != 0) {
        Use& use = useOf(object, record.stack, pid, timeNs);
        ++(change > 0 ? use.retains : use.releases);
        ++(change > 0 ? object.retains : object.releases);
    }
    // An object whose count cannot be seen has one reference when it is made.
    const bool isLast = record.before != 0 ? record.before == 1 : object.releases > object.retains;
    if (change < 0 && isLast)
        _objects.erase(place);
    else
        object.count = record.before == 0 ? 0 : record.before + static_cast<uint64_t>(int64_t{change});
}

bool ReferenceCountBuilder::isUnbalanced(const Object& object)
{
    const auto kept = static_cast<int64_t>(object.retains - object.releases);
    return kept > 0 && kept + std::min<int64_t>(object.unseen, 0) > 0;
}

ReferenceCounts ReferenceCountBuilder::finish(const PathOf& pathOf)
{
    struct Kept {
        uint64_t address = 0;
        Object* object = nullptr;
    };
    std::vector<Kept> kept;
    for (auto& [address, object] : _objects) {
        if (isUnbalanced(object))
            kept.push_back({address, &object});
    }
    std::sort(kept.begin(), kept.end(), [](const Kept& a, const Kept& b) {
        return a.object->firstNs != b.object->firstNs ? a.object->firstNs < b.object->firstNs : a.address < b.address;
    });
    _counts.unbalancedObjects = kept.size();
    std::map<std::vector<std::vector<uint32_t>>, size_t> groups; // paths, ascending -> index
    for (const Kept& one : kept) {
        std::vector<UnbalancedObjects::Use> uses;
        for (const Use& use : one.object->uses)
            uses.push_back({use.retains, use.releases, pathOf(use.stack, use.pid, use.timeNs)});
        std::sort(uses.begin(), uses.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
        std::vector<std::vector<uint32_t>> paths;
        for (const auto& use : uses)
            paths.push_back(use.path);
        const auto found = groups.find(paths);
        if (found == groups.end()) {
            if (groups.size() >= kMaxGroups)
                continue;
            groups.emplace(std::move(paths), _counts.unbalanced.size());
            _counts.unbalanced.push_back(
                {1, one.object->retains, one.object->releases, one.address, one.object->count, std::move(uses)});
            continue;
        }
        UnbalancedObjects& group = _counts.unbalanced[found->second];
        ++group.objects;
        group.retains += one.object->retains;
        group.releases += one.object->releases;
        for (size_t i = 0; i < uses.size(); ++i) {
            group.uses[i].retains += uses[i].retains;
            group.uses[i].releases += uses[i].releases;
        }
    }
    for (UnbalancedObjects& group : _counts.unbalanced)
        std::stable_sort(group.uses.begin(), group.uses.end(),
                         [](const auto& a, const auto& b) { return a.retains + a.releases > b.retains + b.releases; });
    std::stable_sort(_counts.unbalanced.begin(), _counts.unbalanced.end(),
                     [](const auto& a, const auto& b) { return a.retains - a.releases > b.retains - b.releases; });
    return std::move(_counts);
}

} // namespace vnt
