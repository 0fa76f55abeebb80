#pragma once

#include <sys/types.h>

#include <vector>

#include "collectors/heap/LiveBlocks.h"
#include "platform/base/Status.h"
#include "records/HeapRecords.h"

namespace vnt {

/// What the live blocks of a target begin with, as far as it is an address in a module's data.
struct ClassLook {
    uint64_t blocks = 0; ///< looked at
    uint64_t bytes = 0; ///< of these
    std::vector<heap::ClassRecord> classes; ///< most bytes first; at most kMaxClasses
    static constexpr size_t kMaxClasses = 65536;
};

/// Reads the first word of each block whose allocation is recorded; of what new[] allocated also the second one, since
/// the number of objects may come first. The target runs on: a block that it constructs or destroys at this moment
/// counts by what it finds there. Cost: one read of memory for each run of near blocks, and a look-up a block. Errors:
/// kNotFound when the process has ended, kDenied when it may not be read.
Result<ClassLook> lookAtClasses(pid_t pid, bool is32Bit, const LiveBlocks& blocks);

} // namespace vnt
