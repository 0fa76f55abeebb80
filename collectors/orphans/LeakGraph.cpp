#include "collectors/orphans/LeakGraph.h"

#include <algorithm>

#include "collectors/orphans/Reachability.h"

namespace vnt::orphans {
namespace {

constexpr uint32_t kUnset = ~0u;

/// The leaks and the pointers among them. Nodes are places in the list of leaked blocks.
class Graph {
public:
    Graph(const std::vector<uint32_t>& leaked, const BlockIndex& blocks, MemoryImage& image, unsigned widthBytes)
        : _leaked(leaked),
          _blocks(blocks),
          _count(static_cast<uint32_t>(leaked.size())),
          _place(_count, kUnset)
    {
        readEdges(image, widthBytes);
    }

    std::vector<Leak> arrange();

private:
    void readEdges(MemoryImage& image, unsigned widthBytes);
    void findCycles();
    void arrangeFrom(uint32_t node, Kind kind, uint32_t component);
    [[nodiscard]] bool isEarlier(uint32_t a, uint32_t b) const
    {
        return _blocks.block(_leaked[a]).timeNs < _blocks.block(_leaked[b]).timeNs;
    }
    template <typename Visit> void forEachHeld(uint32_t node, Visit&& visit) const
    {
        for (size_t i = _first[node]; i < _first[node + 1]; ++i)
            visit(_held[i]);
    }

    const std::vector<uint32_t>& _leaked;
    const BlockIndex& _blocks;
    const uint32_t _count;
    std::vector<size_t> _first; ///< of a node's edges in _held; one more than nodes
    std::vector<uint32_t> _held;
    std::vector<uint32_t> _place; ///< in the result; kUnset: not yet there
    std::vector<uint32_t> _component; ///< of nodes that nothing outside their cycle's reach holds
    std::vector<Leak> _result;
};

void Graph::readEdges(MemoryImage& image, unsigned widthBytes)
{
    _first.reserve(_count + size_t{1});
    for (uint32_t node = 0; node < _count; ++node) {
        _first.push_back(_held.size());
        const auto& place = _blocks.place(_leaked[node]);
        forEachCandidate(_blocks, image, {place.start, place.start + place.sizeBytes}, widthBytes, [&](uint64_t word) {
            const uint32_t block = _blocks.find(word);
            if (block == BlockIndex::kNone || block == _leaked[node])
                return;
            const auto found = std::lower_bound(_leaked.begin(), _leaked.end(), block);
            if (found == _leaked.end() || *found != block)
                return;
            const auto held = static_cast<uint32_t>(found - _leaked.begin());
            if (_held.size() == _first.back() || _held.back() != held)
                _held.push_back(held);
        });
    }
    _first.push_back(_held.size());
}

/// Adds `node` and all it holds that is not there yet, nearest first. Within `component` it is the cycle itself.
void Graph::arrangeFrom(uint32_t node, Kind kind, uint32_t component)
{
    size_t next = _result.size();
    _place[node] = static_cast<uint32_t>(next);
    _result.push_back({_leaked[node], kind, 0});
    std::vector<uint32_t> nodes{node};
    for (size_t i = 0; i < nodes.size(); ++i, ++next) {
        forEachHeld(nodes[i], [&](uint32_t held) {
            if (_place[held] != kUnset)
                return;
            const bool inCycle = component != kUnset && _component[held] == component;
            _place[held] = static_cast<uint32_t>(_result.size());
            _result.push_back(
                {_leaked[held], inCycle ? Kind::kCycle : Kind::kIndirect, static_cast<uint32_t>(next + 1)});
            nodes.push_back(held);
        });
    }
}

/// Numbers the strongly connected components among the nodes that have no place yet (Tarjan, without recursion: lists
/// are long).
void Graph::findCycles()
{
    _component.assign(_count, kUnset);
    std::vector<uint32_t> order(_count, kUnset), low(_count, 0), stack;
    struct Visit {
        uint32_t node;
        size_t edge;
    };
    std::vector<Visit> path;
    uint32_t nextOrder = 0;
    uint32_t nextComponent = 0;
    const auto enter = [&](uint32_t node) {
        order[node] = low[node] = nextOrder++;
        stack.push_back(node);
        path.push_back({node, _first[node]});
    };
    for (uint32_t start = 0; start < _count; ++start) {
        if (_place[start] != kUnset || order[start] != kUnset)
            continue;
        enter(start);
        while (!path.empty()) {
            Visit& visit = path.back();
            const uint32_t node = visit.node;
            if (visit.edge < _first[node + 1]) {
                const uint32_t held = _held[visit.edge++];
                if (_place[held] != kUnset)
                    continue;
                if (order[held] == kUnset)
                    enter(held);
                else if (_component[held] == kUnset)
                    low[node] = std::min(low[node], order[held]);
                continue;
            }
            path.pop_back();
            if (!path.empty())
                low[path.back().node] = std::min(low[path.back().node], low[node]);
            if (low[node] != order[node])
                continue;
            uint32_t member = 0;
            do {
                member = stack.back();
                stack.pop_back();
                _component[member] = nextComponent;
            } while (member != node);
            ++nextComponent;
        }
    }
    // Of the components, those that no other points to; the first member of each stands for it.
    std::vector<uint32_t> leader(nextComponent, kUnset);
    std::vector<bool> isHeld(nextComponent);
    for (uint32_t node = 0; node < _count; ++node) {
        const uint32_t component = _component[node];
        if (component == kUnset)
            continue;
        if (leader[component] == kUnset || isEarlier(node, leader[component]))
            leader[component] = node;
        forEachHeld(node, [&](uint32_t held) {
            if (_component[held] != kUnset && _component[held] != component)
                isHeld[_component[held]] = true;
        });
    }
    std::vector<uint32_t> leaders;
    for (uint32_t component = 0; component < nextComponent; ++component) {
        if (!isHeld[component])
            leaders.push_back(leader[component]);
    }
    std::sort(leaders.begin(), leaders.end(), [this](uint32_t a, uint32_t b) { return isEarlier(a, b); });
    for (const uint32_t node : leaders)
        arrangeFrom(node, Kind::kCycle, _component[node]);
}

std::vector<Leak> Graph::arrange()
{
    _result.reserve(_count);
    std::vector<bool> isHeld(_count);
    for (const uint32_t held : _held)
        isHeld[held] = true;
    std::vector<uint32_t> direct;
    for (uint32_t node = 0; node < _count; ++node) {
        if (!isHeld[node])
            direct.push_back(node);
    }
    std::sort(direct.begin(), direct.end(), [this](uint32_t a, uint32_t b) { return isEarlier(a, b); });
    for (const uint32_t node : direct)
        arrangeFrom(node, Kind::kDirect, kUnset);
    if (_result.size() != _count)
        findCycles();
    return std::move(_result);
}

} // namespace

std::vector<Leak> arrangeLeaks(const std::vector<uint32_t>& leaked, const BlockIndex& blocks, MemoryImage& image,
                               unsigned widthBytes)
{
    return Graph(leaked, blocks, image, widthBytes).arrange();
}

} // namespace vnt::orphans
