#pragma once

#include <string>

#include "bundle/ElfFile.h"

namespace vnt {

/// Where a system keeps separate debug files.
inline constexpr const char* kDebugRoot = "/usr/lib/debug";

/// Path of the separate debug file of the ELF file at `path`: by its build id below `debugRoot`/.build-id, else the one
/// its .gnu_debuglink names, beside it, in .debug or below `debugRoot`. Only a file that proves to belong to `file`
/// (equal build id, else the link's checksum) is returned; empty when there is none. Nothing is fetched from anywhere.
[[nodiscard]] std::string findDebugFile(const ElfFile& file, const std::string& path,
                                        const std::string& debugRoot = kDebugRoot);

} // namespace vnt
