#pragma once

#include <iosfwd>
#include <string>

namespace vnt {

/// What `rumbel archive` was asked for.
struct ArchiveOptions {
    std::string bundlePath;
    std::string output; ///< directory of the copy, which must not exist; empty: the bundle itself
    bool debuginfod = false; ///< also fetch what this machine lacks
    bool showProgress = false; ///< a line on `err` that is overwritten; for terminals
};

/// Stores the symbols of all addresses in the bundle, or in a copy of it, so that it reads the same on another machine.
/// What is stored already stays. One line about it goes to `out`, errors and remarks to `err`. Returns the exit status:
/// 0, or 1 when the bundle cannot be read or the symbols cannot be written; nothing is half written then.
int runArchive(const ArchiveOptions& options, std::ostream& out, std::ostream& err);

} // namespace vnt
