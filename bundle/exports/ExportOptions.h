#pragma once

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "bundle/ProcessImages.h"

namespace vnt {

/// What of a bundle is to be exported, and how.
struct ExportOptions {
    /// Of the recording, in ns from its start. What has a time outside is left out.
    TimeSpan span;
    /// Tids or names; empty: all. What belongs to no thread (allocations, processes) is not picked by it.
    std::vector<std::string> threads;
    /// Identifiers; empty: all that the format can show, or the first of them where it can show only one.
    std::vector<std::string> instruments;
    bool offCpu = false; ///< folded: waits instead of processor time
    bool annotate = false; ///< folded: suffixes that tell kernel and inlined functions
    bool threadRoots = false; ///< folded: process id and thread id in the root frame
    bool perfSamples = false; ///< perfetto: samples in the form that viewers before v58 know
    std::string scratchDirectory = "/var/tmp"; ///< for files without a name, where the memory is too small
    /// Called now and then with the share that is done of reading, 0 to 1; may be empty.
    std::function<void(double)> onProgress;
};

} // namespace vnt
