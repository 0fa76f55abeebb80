#include "bundle/UnitScopes.h"

#include <dwarf.h>
#include <elfutils/libdw.h>

namespace vnt {

namespace {

/// The largest units of real programs have some 200,000.
constexpr size_t kMaxScopes = 2u << 20;
/// Ranges of one entry; split functions have a few, inlined calls some tens.
constexpr int kMaxRanges = 10'000;
/// Deeper nesting is a forged file.
constexpr int kMaxDepth = 500;

Dwarf_Die* dieOf(void* die) { return static_cast<Dwarf_Die*>(die); }

/// Entries that code can be within.
bool canHoldCode(int tag)
{
    switch (tag) {
    case DW_TAG_subprogram:
    case DW_TAG_inlined_subroutine:
    case DW_TAG_lexical_block:
    case DW_TAG_namespace:
    case DW_TAG_module:
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
    case DW_TAG_try_block:
    case DW_TAG_catch_block:
    case DW_TAG_with_stmt:
        return true;
    default:
        return false;
    }
}

} // namespace

UnitScopes::UnitScopes(void* unit) { readChildren(unit, CodeScope::kNone, 0); }

void UnitScopes::readChildren(void* die, uint32_t parent, int depth)
{
    Dwarf_Die child;
    if (depth >= kMaxDepth || dwarf_child(dieOf(die), &child) != 0)
        return;
    do {
        if (canHoldCode(dwarf_tag(&child)))
            readScope(&child, parent, depth);
    } while (_scopes.size() < kMaxScopes && dwarf_siblingof(&child, &child) == 0);
}

void UnitScopes::readScope(void* die, uint32_t parent, int depth)
{
    const int tag = dwarf_tag(dieOf(die));
    uint32_t scope = parent;
    if (tag == DW_TAG_subprogram || tag == DW_TAG_inlined_subroutine) {
        Dwarf_Addr base = 0;
        Dwarf_Addr start = 0;
        Dwarf_Addr end = 0;
        ptrdiff_t at = dwarf_ranges(dieOf(die), 0, &base, &start, &end);
        if (at <= 0)
            return; // a declaration, or the description of what is only inlined
        scope = static_cast<uint32_t>(_scopes.size());
        const bool isInlined = tag == DW_TAG_inlined_subroutine;
        _scopes.push_back({isInlined ? parent : CodeScope::kNone, dwarf_dieoffset(dieOf(die)), isInlined});
        for (int i = 0; at > 0 && i < kMaxRanges; ++i) {
            paint(start, end, scope);
            at = dwarf_ranges(dieOf(die), at, &base, &start, &end);
        }
    }
    readChildren(die, scope, depth + 1);
}

/// Inner scopes come after the outer ones and take their pieces from them.
void UnitScopes::paint(uint64_t start, uint64_t end, uint32_t scope)
{
    if (start >= end)
        return;
    const uint32_t behind = find(end);
    _pieces.erase(_pieces.lower_bound(start), _pieces.lower_bound(end));
    _pieces[start] = scope;
    _pieces.try_emplace(end, behind);
}

uint32_t UnitScopes::find(uint64_t address) const
{
    const auto next = _pieces.upper_bound(address);
    return next == _pieces.begin() ? CodeScope::kNone : std::prev(next)->second;
}

} // namespace vnt
