#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <unordered_map>
#include <vector>

#include "rumbel/view/PageColumns.h"

namespace vnt::view {

/// Call paths of one instrument. A node is its caller's node and a function of the page; node 0 is above all of them,
/// and a caller's number is always smaller. One thread.
class CallTree {
public:
    /// Past it, paths end at the last caller that has a node. Some 60 bytes each while the tree is made.
    static constexpr size_t kMaxNodes = 2u << 20;
    /// That a page gets: what a browser lays out within a frame or two.
    static constexpr size_t kMaxPageNodes = 150'000;

    uint32_t child(uint32_t caller, uint32_t function);
    [[nodiscard]] size_t count() const { return _callers.size(); }
    [[nodiscard]] uint32_t caller(uint32_t node) const { return _callers[node]; }
    [[nodiscard]] uint32_t function(uint32_t node) const { return _functions[node]; }

    /// Leaves out the lightest paths until at most `maxNodes` are left, and answers for each node its number
    /// afterwards: that of its nearest caller for one that went. `weights` are the nodes' own.
    std::vector<uint32_t> prune(std::span<const uint64_t> weights, size_t maxNodes = kMaxPageNodes);
    [[nodiscard]] size_t pruned() const { return _pruned; }
    [[nodiscard]] nlohmann::ordered_json json(PageColumns& columns) const;

private:
    std::vector<uint32_t> _callers{0};
    std::vector<uint32_t> _functions{0};
    std::unordered_map<uint64_t, uint32_t> _children; ///< caller << 32 | function
    size_t _pruned = 0;
};

} // namespace vnt::view
