#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "bundle/OrphanProfile.h"

namespace vnt {

/// What holds what among the leaks: the `top` (0: all) that nothing else holds, those that keep most bytes first, each
/// with what it holds. Blocks alike, of one size, function and holder, share a line.
void writeOrphanTree(const OrphanProfile& profile, const OrphanSummary& summary, size_t top, std::ostream& out);

/// "00ff41".
[[nodiscard]] std::string hexText(std::string_view bytes);

} // namespace vnt
