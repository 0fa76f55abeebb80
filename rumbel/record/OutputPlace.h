#pragma once

#include <string>

namespace vnt::rumbel {

/// Where a recording will be saved, tried before anything starts.
struct OutputPlace {
    std::string path; ///< without ".vnt"
    std::string error; ///< not empty: why nothing can be saved there
};

/// Checks that a bundle can be made at `output` (".vnt" is added when missing; empty: a name from `target` and the
/// time): the directory exists or can be made, takes files and has room. A bundle that is there already is moved to
/// NAME.vnt.old.
OutputPlace prepareOutput(const std::string& output, const std::string& target);

/// True when a stream in the bundle at `path` + ".vnt" stands without the data file that tells how to read it: the disk
/// was full when that was written, which the library does not look at.
bool isIncomplete(const std::string& path);

/// True when the bundle at `path` + ".vnt" holds no file; an empty directory is removed.
bool removeIfEmpty(const std::string& path);

} // namespace vnt::rumbel
