#pragma once

#include <cstdint>
#include <map>
#include <vector>

namespace vnt {

/// One function of a unit, or a call of one that was inlined.
struct CodeScope {
    uint32_t parent = 0; ///< scope that it is inlined into; kNone for a function of its own
    uint64_t entry = 0; ///< offset of its entry in .debug_info
    bool isInlined = false;
    static constexpr uint32_t kNone = ~0u;
};

/// Which function and which inlined calls the code of one compilation unit belongs to: its tree of debug entries read
/// once, so that a look-up is one search in a tree of pieces. Libdw's own search reads the whole unit for every address
/// (30 ms in a large one). Some 100 bytes a scope. Input is untrusted: pieces are painted over one another, whatever
/// they claim, and their number is bounded. Immutable.
class UnitScopes {
public:
    /// `unit` is a Dwarf_Die*. What cannot be read is left out.
    explicit UnitScopes(void* unit);

    /// Number of the innermost scope at `address`, which is in the unit's own terms; CodeScope::kNone where there is
    /// none.
    [[nodiscard]] uint32_t find(uint64_t address) const;
    [[nodiscard]] const CodeScope& scope(uint32_t number) const { return _scopes[number]; }

private:
    void readChildren(void* die, uint32_t parent, int depth);
    void readScope(void* die, uint32_t parent, int depth);
    void paint(uint64_t start, uint64_t end, uint32_t scope);

    std::vector<CodeScope> _scopes;
    std::map<uint64_t, uint32_t> _pieces; // by start: up to the next one
};

} // namespace vnt
