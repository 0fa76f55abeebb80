#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "collectors/heap/HeapStacks.h"
#include "collectors/heap/LiveBlocks.h"

namespace vnt {

/// The heap of a journaled target, lent by its collector for the length of one call on its thread. Meanwhile the rings
/// fill: whoever takes longer than some milliseconds lets the target wait.
class HeapView {
public:
    virtual ~HeapView() = default;
    [[nodiscard]] virtual pid_t pid() const = 0;
    [[nodiscard]] virtual bool is32Bit() const = 0;
    [[nodiscard]] virtual const std::string& name() const = 0;
    [[nodiscard]] virtual const LiveBlocks& blocks() const = 0;
    [[nodiscard]] virtual const HeapStacks& stacks() const = 0;

    /// For a target that stands still: everything its threads have published is in blocks() afterwards. A thread that
    /// was stopped within making a record of an allocation has not used the block yet, and one within that of a free
    /// has not given it back; only a reallocation is undecided then.
    virtual void drainStopped() = 0;
    /// Addresses of the blocks that threads are reallocating now (0: of one not known): they are in blocks(), but found
    /// at no address.
    [[nodiscard]] virtual std::vector<uint64_t> reallocating() const = 0;
    /// The journal was there from the program's start: no block is older.
    [[nodiscard]] virtual bool knowsAllBlocks() const = 0;
    /// Allocations and frees that the journal lost: there may be blocks that are not in blocks(), and the other way.
    [[nodiscard]] virtual uint64_t lostEvents() const = 0;
    /// The names of C++ classes were asked for.
    [[nodiscard]] virtual bool identifiesClasses() const = 0;
};

} // namespace vnt
