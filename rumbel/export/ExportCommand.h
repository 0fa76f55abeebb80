#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace vnt {

/// What `rumbel export` was asked for.
struct ExportCommand {
    std::string bundlePath;
    std::string format;
    std::string output = "-"; ///< a file, or "-" for standard output
    std::string from; ///< since the recording's start: "1.5", "300ms"; empty: all
    std::string to;
    std::vector<std::string> threads;
    std::vector<std::string> instruments; ///< short names
    bool offCpu = false;
    bool annotate = false;
    bool threadRoots = false;
    bool perfSamples = false;
};

/// "folded, pprof": for the tool's help.
[[nodiscard]] std::string exportFormatNames();

/// Reads the bundle and writes the export; errors and remarks about missing or damaged data to `err`, progress to
/// descriptor 2 if that is a terminal. `standardOutput` is the descriptor for "-". A file appears only when it is
/// whole. Needs no server. Returns the exit status: 0, 1 when nothing could be read or written, 2 when the options make
/// no sense.
int runExport(const ExportCommand& command, int standardOutput, std::ostream& err);

} // namespace vnt
