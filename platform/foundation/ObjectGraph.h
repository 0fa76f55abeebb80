#pragma once

#include <span>
#include <vector>

#include "platform/base/Status.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// Every distinct object reachable from some roots, numbered breadth first, with the numbers that each collection holds
/// (items in order; for dictionaries all keys, then all values). What property lists and archives are written from.
/// Does not own the objects, which must neither go nor change while it is used. No recursion.
///
/// Values that would be written as the same bytes get one number; collections only when they are one object. Up to a
/// handful of objects are compared one by one, which is what a message needs; beyond that through a hash table.
class ObjectGraph {
public:
    /// Nesting of what is written: what goes deeper would be refused by every reader of ours.
    static constexpr uint32_t kMaxDepth = 512;

    /// Refuses an object that the form cannot hold.
    using Accepts = Status (*)(const Object& object);
    explicit ObjectGraph(Accepts accepts);

    /// Adds `root` and all it holds. Errors: what `accepts` said; kUnsupported for a collection that holds itself;
    /// kTooLarge for more than kMaxDepth levels.
    Status add(const Object& root, uint32_t& number);

    [[nodiscard]] size_t count() const { return _objects.size(); }
    [[nodiscard]] const Object& at(size_t number) const { return *_objects[number]; }
    /// Numbers of what object `number` holds; empty for a value.
    [[nodiscard]] std::span<const uint32_t> held(size_t number) const
    {
        return {_references.data() + _nodes[number].firstReference, _nodes[number].count};
    }

private:
    struct Node {
        size_t firstReference = 0; // into _references
        uint32_t count = 0;
        uint32_t depth = 0;
    };

    uint32_t place(const Object& object, uint32_t depth);
    uint32_t placeNew(const Object& object, uint32_t depth);
    [[nodiscard]] static size_t hashOf(const Object& object);
    void growTable();
    Status expand(size_t number);
    Status checkShape(uint32_t root) const;

    const Accepts _accepts;
    std::vector<const Object*> _objects;
    std::vector<Node> _nodes;
    std::vector<uint32_t> _references;
    bool _sharesCollections = false;
    std::vector<size_t> _hashes;
    std::vector<uint32_t> _slots; // number plus one, 0 when free; empty while small
};

[[nodiscard]] inline bool isCollection(const Object& object)
{
    return object.typeId() == TypeId::kArray || object.typeId() == TypeId::kDictionary
        || object.typeId() == TypeId::kSet;
}

} // namespace vnt
