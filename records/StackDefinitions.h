#pragma once

#include <cstdint>

#include "records/StackRecords.h"

namespace vnt::stacks {

/// Where the definitions that recorded stacks refer to are written: frame nodes and threads. Implemented by the writers
/// of the record formats that carry stacks; one thread.
class StackDefinitions {
public:
    virtual ~StackDefinitions() = default;
    /// Innermost frames have the largest numbers. `caller` is 0 or a node of this generation.
    virtual uint32_t addNode(uint32_t caller, uint64_t callerAddress, uint64_t address) = 0;
    virtual uint32_t addCutNode() = 0;
    /// Defines thread number `thread`, or redefines it from here on (a new name).
    virtual void addThread(uint32_t thread, const ThreadRecord& record) = 0;
};

} // namespace vnt::stacks
