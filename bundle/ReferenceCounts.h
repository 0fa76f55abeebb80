#pragma once

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "records/HeapRecords.h"

namespace vnt {

/// Objects alive at the end that took more references than they gave back, all with the same call paths.
struct UnbalancedObjects {
    struct Use {
        uint64_t retains = 0;
        uint64_t releases = 0;
        std::vector<uint32_t> path; ///< symbols, the innermost function first
    };
    uint64_t objects = 0;
    uint64_t retains = 0;
    uint64_t releases = 0;
    uint64_t address = 0; ///< of the first of them
    uint64_t count = 0; ///< of references to it, as last seen; 0: not known
    std::vector<Use> uses; ///< most calls first
};

/// What was done to counted objects.
struct ReferenceCounts {
    uint64_t retains = 0;
    uint64_t releases = 0;
    uint64_t unchanged = 0; ///< calls that took a floating reference over, or found none
    uint64_t objects = 0; ///< that any of these was done to
    uint64_t unbalancedObjects = 0;
    uint64_t notFollowed = 0; ///< calls for objects beyond those that are followed at a time
    std::vector<UnbalancedObjects> unbalanced; ///< most references kept first

    [[nodiscard]] bool empty() const { return retains == 0 && releases == 0 && unchanged == 0; }
};

/// Follows each counted object from its first call to its end: its last release, as far as its count is known, or the
/// free of its memory. About 150 bytes an object alive. One thread.
class ReferenceCountBuilder {
public:
    void add(uint64_t timeNs, uint32_t pid, const heap::CountRecord& record);
    /// The block at that address is gone.
    void onFree(uint64_t address)
    {
        if (!_objects.empty())
            _objects.erase(address);
    }
    /// Another program: all objects are gone.
    void onProgram() { _objects.clear(); }

    /// Names a stack's functions, innermost first.
    using PathOf = std::function<std::vector<uint32_t>(uint32_t stack, uint32_t pid, uint64_t timeNs)>;
    [[nodiscard]] ReferenceCounts finish(const PathOf& pathOf);

private:
    struct Use {
        uint32_t stack = 0;
        uint32_t pid = 0;
        uint64_t timeNs = 0; ///< of the first
        uint64_t retains = 0;
        uint64_t releases = 0;
    };
    struct Object {
        uint64_t firstNs = 0;
        uint64_t retains = 0;
        uint64_t releases = 0;
        uint64_t count = 0; ///< after the latest call; 0: not known
        /// Changes between the calls seen, by code that calls the functions where nobody can stand in between.
        int64_t unseen = 0;
        std::vector<Use> uses;
    };
    static constexpr size_t kMaxObjects = 1u << 20;
    static constexpr size_t kMaxUses = 64; ///< paths of one object that are told apart; the others count as the last

    static Use& useOf(Object& object, uint32_t stack, uint32_t pid, uint64_t timeNs);
    [[nodiscard]] static bool isUnbalanced(const Object& object);

    ReferenceCounts _counts;
    std::unordered_map<uint64_t, Object> _objects; ///< alive, by address
};

} // namespace vnt
