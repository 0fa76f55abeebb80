#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bundle/ElfFile.h"

namespace vnt {

/// One entry of a procedure linkage table: the jump to a function of another module.
struct PltEntry {
    uint64_t start = 0; ///< linked address
    uint64_t size = 0;
    std::string name; ///< of the function jumped to, mangled, without version
};

/// The entries of .plt, .plt.sec and .plt.got whose target a relocation names. Each entry's jump is decoded, so every
/// linker's layout is understood; x86 of both widths, nothing for other machines.
[[nodiscard]] std::vector<PltEntry> readPltEntries(const ElfFile& file);

} // namespace vnt
