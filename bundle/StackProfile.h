#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Symbolizer.h"
#include "records/StackRecords.h"

namespace vnt {

/// One thread that was sampled.
struct ProfileThread {
    uint32_t pid = 0;
    uint32_t tid = 0;
    std::string name; ///< the latest one
    uint64_t samples = 0;
    uint64_t blockedNs = 0;
};

/// What was counted for one thing: a function, a place in the call tree.
struct ProfileWeight {
    uint64_t samples = 0; ///< each stands for one interval of processor time
    uint64_t blockedNs = 0; ///< time off the processor

    ProfileWeight& operator+=(const ProfileWeight& other)
    {
        samples += other.samples;
        blockedNs += other.blockedNs;
        return *this;
    }
    [[nodiscard]] bool isZero() const { return samples == 0 && blockedNs == 0; }
};

/// A node of the call tree: a function called by the path above it.
struct ProfileNode {
    uint32_t parent = 0; ///< node 0 is the root above all stacks
    uint32_t symbol = 0;
    ProfileWeight self; ///< samples that ended here
};

/// One function over all stacks. A sample counts once for `total` however often the function stands in its stack.
struct ProfileFunction {
    uint32_t symbol = 0;
    ProfileWeight self;
    ProfileWeight total;
};

/// What the recording says about itself.
struct ProfileTotals {
    ProfileWeight all;
    uint64_t blockedRecords = 0;
    uint64_t truncated = 0; ///< of the samples: stacks whose outer frames were cut when recorded
    uint64_t orphans = 0; ///< samples whose definitions were lost; not among the samples
    uint64_t lostByCause[stacks::kLostCauses] = {};
    uint64_t missingMessages = 0; ///< gaps in the sequence of messages
    uint64_t damagedMessages = 0;
    uint64_t recorderCpuNs = 0;
    uint64_t firstTimeNs = 0;
    uint64_t lastTimeNs = 0;
    stacks::SessionRecord session;

    /// Samples that were taken or due and are not in the profile, throttling apart.
    [[nodiscard]] uint64_t lost() const;
    [[nodiscard]] uint64_t throttled() const { return lostByCause[static_cast<size_t>(stacks::LostCause::kThrottled)]; }
};

/// All samples of one recording, aggregated: which call path, in which thread, how often. Size depends on the number of
/// distinct call paths, not on the length of the recording. Filled by StackProfileBuilder, then only read; the
/// symbols' numbers belong to the Symbolizer that the builder was given.
class StackProfile {
public:
    [[nodiscard]] const ProfileTotals& totals() const { return _totals; }
    /// Threads in the order they were first sampled.
    [[nodiscard]] const std::vector<ProfileThread>& threads() const { return _threads; }
    /// The call tree; a node's parent stands before it. Node 0 is the root and has no symbol.
    [[nodiscard]] const std::vector<ProfileNode>& nodes() const { return _nodes; }

    /// How often a thread was seen at a call path.
    struct Count {
        uint32_t thread = 0; ///< index into threads()
        uint32_t node = 0;
        ProfileWeight weight;
    };
    /// In order of node and thread.
    [[nodiscard]] std::vector<Count> counts() const;

    /// Every function with its weights, most samples of its own first. Linear in the nodes.
    [[nodiscard]] std::vector<ProfileFunction> functions() const;
    /// For every node its weight with all that it called. Linear.
    [[nodiscard]] std::vector<ProfileWeight> nodeTotals() const;

private:
    friend class StackProfileBuilder;
    ProfileTotals _totals;
    std::vector<ProfileThread> _threads;
    std::vector<ProfileNode> _nodes{1};
    std::unordered_map<uint64_t, ProfileWeight> _counts; // node << 32 | thread
};

} // namespace vnt
