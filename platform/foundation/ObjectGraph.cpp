#include "platform/foundation/ObjectGraph.h"

#include <algorithm>
#include <bit>

#include "platform/foundation/hashing.h"

namespace vnt {
namespace {

constexpr size_t kLinearObjects = 12;

bool sameBytes(const Object& a, const Object& b)
{
    if (&a == &b)
        return true;
    if (a.typeId() != b.typeId() || isCollection(a))
        return false;
    if (const auto* number = as<Number>(&a)) {
        const auto& other = static_cast<const Number&>(b);
        if (number->kind() != other.kind())
            return false;
        if (number->kind() == Number::Kind::kDouble) // 0.0 and -0.0 are equal but not the same
            return std::bit_cast<uint64_t>(number->doubleValue()) == std::bit_cast<uint64_t>(other.doubleValue());
    }
    return a.isEqual(b);
}

Status tooDeep()
{
    return Status(Code::kTooLarge, "nested deeper than " + std::to_string(ObjectGraph::kMaxDepth) + " levels");
}

} // namespace

ObjectGraph::ObjectGraph(Accepts accepts) : _accepts(accepts)
{
    _objects.reserve(16);
    _nodes.reserve(16);
    _references.reserve(16);
}

size_t ObjectGraph::hashOf(const Object& object)
{
    return isCollection(object) ? hashValue(reinterpret_cast<uintptr_t>(&object), 0) : object.hash();
}

void ObjectGraph::growTable()
{
    for (size_t i = _hashes.size(); i < _objects.size(); ++i)
        _hashes.push_back(hashOf(*_objects[i]));
    _slots.assign(std::max<size_t>(64, _slots.size() * 2), 0);
    const size_t mask = _slots.size() - 1;
    for (size_t i = 0; i < _objects.size(); ++i) {
        size_t slot = _hashes[i] & mask;
        while (_slots[slot] != 0)
            slot = (slot + 1) & mask;
        _slots[slot] = static_cast<uint32_t>(i + 1);
    }
}

uint32_t ObjectGraph::placeNew(const Object& object, uint32_t depth)
{
    VNT_CHECK(_objects.size() < UINT32_MAX - 1);
    _objects.push_back(&object);
    _nodes.push_back({0, 0, depth});
    return static_cast<uint32_t>(_objects.size() - 1);
}

uint32_t ObjectGraph::place(const Object& object, uint32_t depth)
{
    const auto known = [&](size_t number) {
        _sharesCollections = _sharesCollections || isCollection(object);
        return static_cast<uint32_t>(number);
    };
    if (_slots.empty()) {
        for (size_t i = 0; i < _objects.size(); ++i) {
            if (sameBytes(*_objects[i], object))
                return known(i);
        }
        const uint32_t number = placeNew(object, depth);
        if (_objects.size() > kLinearObjects)
            growTable();
        return number;
    }
    const size_t hash = hashOf(object);
    const size_t mask = _slots.size() - 1;
    size_t slot = hash & mask;
    for (; _slots[slot] != 0; slot = (slot + 1) & mask) {
        const uint32_t number = _slots[slot] - 1;
        if (_hashes[number] == hash && sameBytes(*_objects[number], object))
            return known(number);
    }
    const uint32_t number = placeNew(object, depth);
    _slots[slot] = number + 1;
    _hashes.push_back(hash);
    if (_objects.size() * 4 > _slots.size() * 3)
        growTable();
    return number;
}

Status ObjectGraph::add(const Object& root, uint32_t& number)
{
    const size_t before = _objects.size();
    number = place(root, 0);
    for (size_t i = before; i < _objects.size(); ++i)
        RETURN_IF_ERROR(expand(i));
    return _sharesCollections ? checkShape(number) : Status();
}

Status ObjectGraph::expand(size_t number)
{
    const Object& object = *_objects[number];
    RETURN_IF_ERROR(_accepts(object));
    if (!isCollection(object))
        return {};
    const uint32_t depth = _nodes[number].depth + 1;
    if (depth > kMaxDepth)
        return tooDeep();
    const size_t first = _references.size();
    const auto hold = [&](const Object& held) { _references.push_back(place(held, depth)); };
    if (const auto* array = as<Array>(&object)) {
        for (const Ref<Object>& item : array->items())
            hold(*item);
    } else if (const auto* dictionary = as<Dictionary>(&object)) {
        for (const auto& entry : dictionary->entries())
            hold(*entry.first);
        for (const auto& entry : dictionary->entries())
            hold(*entry.second);
    } else {
        for (const Ref<Object>& item : static_cast<const Set&>(object).items())
            hold(*item);
    }
    _nodes[number].firstReference = first;
    _nodes[number].count = static_cast<uint32_t>(_references.size() - first);
    return {};
}

/// Collections that are held more than once may hold themselves, or nest deeper than their first place tells: walks all
/// below `root`, innermost first.
Status ObjectGraph::checkShape(uint32_t root) const
{
    constexpr uint32_t kBeingWalked = UINT32_MAX;
    std::vector<uint32_t> heights(_objects.size());
    std::vector<std::pair<uint32_t, size_t>> open{{root, 0}}; // number, next reference
    heights[root] = kBeingWalked;
    while (!open.empty()) {
        auto& [number, next] = open.back();
        const auto children = held(number);
        while (next < children.size() && heights[children[next]] != 0) {
            if (heights[children[next]] == kBeingWalked)
                return Status(Code::kUnsupported, "a collection holds itself");
            ++next;
        }
        if (next < children.size()) {
            heights[children[next]] = kBeingWalked;
            open.emplace_back(children[next], 0);
            continue;
        }
        uint32_t height = 1;
        for (const uint32_t child : children)
            height = std::max(height, heights[child] + 1);
        if (height > kMaxDepth + 1)
            return tooDeep();
        heights[number] = height;
        open.pop_back();
    }
    return {};
}

} // namespace vnt
