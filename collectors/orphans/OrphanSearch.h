#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "collectors/heap/ModuleSpans.h"
#include "collectors/orphans/Snapshot.h"
#include "records/OrphanRecords.h"

namespace vnt::orphans {

struct FoundLeak {
    LeakRecord record; ///< without its stack and isNew, which are the writer's
    uint32_t stack = 0; ///< of OrphanResult::stacks
};

struct OrphanResult {
    uint64_t timeNs = 0; ///< at which the target stood still
    SearchRecord search; ///< without its number, which is the writer's
    std::vector<FoundLeak> leaks; ///< holders before what they hold; at most kMaxLeaks
    uint64_t omittedBytes = 0; ///< of the leaks beyond
    HeapStacks stacks;
};

/// One search for leaks, in two steps, so that the target goes on between them.
class OrphanSearch {
public:
    struct Options {
        bool stacks = false;
        bool contents = false; ///< the first bytes of each leak
        bool atExit = false;
        uint64_t limitBytes = 0; ///< as of SnapshotOptions
    };
    /// The request's time is now.
    explicit OrphanSearch(const Options& options);

    /// On the heap collector's thread. Errors: as of takeSnapshot().
    Status look(HeapView& heap);
    /// On any thread, once, after a look that went well. 50 to 300 ns a block, by what points where.
    OrphanResult judge();

private:
    OrphanResult judge(Snapshot& snapshot);

    const Options _options;
    const uint64_t _requestedNs;
    std::optional<ModuleSpans> _modules; ///< where classes are asked for
    std::unique_ptr<Snapshot> _snapshot;
    std::optional<OrphanResult> _judged; ///< of a target that had to be judged while it stood still
};

} // namespace vnt::orphans
