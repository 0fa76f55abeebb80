#pragma once

#include <string>

#include "platform/foundation/Object.h"

namespace vnt {

/// Equality of collections by their contents. Each pair of collections is compared once, so a graph that shares its
/// parts costs what it holds and not what it would hold spelled out; no recursion.
[[nodiscard]] bool deepEqual(const Object& a, const Object& b);

/// "(a, b)", "{key = value; }" and "{(a, b)}". Cut off with "…" past one million bytes or 100 levels, which only a
/// hostile or damaged object reaches.
[[nodiscard]] std::string deepDescription(const Object& object);

} // namespace vnt
