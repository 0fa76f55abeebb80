#pragma once

#include <linux/perf_event.h>

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "records/StackDefinitions.h"

namespace vnt {

/// Turns call chains into stack numbers of the record format, writing the definitions that are new. A chain seen before
/// costs one hash over it and one look-up; a new one costs a look-up per frame. Whole chains are told apart by a
/// seeded 64-bit hash alone: at the limit of a million stacks two are confused with a probability of 3 in 10^8.
/// Bounded by the record format's limit of nodes: 32 MiB here. One thread.
class StackInterner {
public:
    /// Last in a chain whose outer frames are missing: a context marker that the kernel does not use.
    static constexpr uint64_t kCut = static_cast<uint64_t>(PERF_CONTEXT_MAX);

    /// `chain` as in PERF_RECORD_SAMPLE: innermost frame first, PERF_CONTEXT_* markers among the addresses.
    /// `maxFrames` frames or more are taken as cut off, and so is one that ends in kCut. Returns 0 for an empty chain.
    /// Before the call there must be roomFor(chain.size()).
    uint32_t intern(std::span<const uint64_t> chain, uint32_t maxFrames, stacks::StackDefinitions& writer);

    /// False: a new generation is due.
    [[nodiscard]] bool roomFor(size_t frames) const;
    /// Forgets everything, for a new generation.
    void clear();

    /// Kernel addresses first seen since the last call.
    std::vector<uint64_t> takeNewKernelAddresses() { return std::exchange(_kernelAddresses, {}); }

private:
    struct StackSlot {
        uint64_t hash = 0; ///< 0: free
        uint32_t stack = 0;
    };
    struct NodeSlot {
        uint64_t address = 0;
        uint32_t caller = 0;
        uint32_t node = 0; ///< 0: free
    };

    uint32_t define(std::span<const uint64_t> chain, uint32_t maxFrames, stacks::StackDefinitions& writer);
    uint32_t child(uint32_t caller, uint64_t callerAddress, uint64_t address, stacks::StackDefinitions& writer);
    void growStacks();
    void growNodes();

    std::vector<StackSlot> _stacks = std::vector<StackSlot>(1024);
    std::vector<NodeSlot> _nodes = std::vector<NodeSlot>(4096);
    size_t _stackCount = 0;
    size_t _nodeCount = 0;
    uint32_t _cutNode = 0;
    std::vector<uint64_t> _kernelAddresses;
};

} // namespace vnt
