#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "collectors/heap/JournalReader.h"

namespace vnt {

struct JournalAttachment {
    std::unique_ptr<JournalReader> reader; ///< events are in its rings from now on
    bool is32Bit = false;
    uint64_t timeNs = 0; ///< before the first event
    uint32_t redirected = 0; ///< places of the target that lead to the journal; 0: it was loaded at the target's start
    uint32_t refused = 0; ///< places that could not be changed
};

/// Brings the journal into a process that runs, or wakes the one that is there, and takes it out again. Blocks; any
/// thread. Errors are sentences for the user, without the full stop.
class JournalInjection {
public:
    struct Options {
        std::string directory; ///< with the journals of both widths, each in a $LIB of the loader
        uint32_t eventsMask = 0;
        uint32_t flags = 0; ///< of journal::Welcome
    };
    explicit JournalInjection(Options options) : _options(std::move(options)) { }

    Result<JournalAttachment> attach(pid_t pid) const;
    /// Modules call what they called before, the journal's memory is given back; the library stays mapped.
    static Status detach(pid_t pid);

private:
    Options _options;
};

} // namespace vnt
