#include "collectors/heap/HeapStacks.h"

#include <utility>

namespace vnt {
namespace {

constexpr unsigned kRegionBits = 16;
constexpr size_t kMaxRegions = 1u << 16; // 4 GiB of code
/// Stands for the place of the outer frames that are missing; no return address.
constexpr uint64_t kCutAddress = 0;

size_t hashOf(uint32_t caller, uint64_t address)
{
    uint64_t value = (address ^ (uint64_t{caller} << 40)) * 0x9e3779b97f4a7c15U;
    value ^= value >> 32;
    value *= 0xd6e8feb86659fd93U;
    return static_cast<size_t>(value ^ (value >> 32));
}

} // namespace

uint32_t HeapStacks::intern(std::span<const uint64_t> addresses, bool cut)
{
    if (addresses.empty() || isFull())
        return 0;
    uint32_t node = 0;
    if (cut) {
        if (_cutNode == 0) {
            _nodes.push_back({kCutAddress, 0, 0});
            _cutNode = static_cast<uint32_t>(_nodes.size());
        }
        node = _cutNode;
    }
    for (size_t i = addresses.size(); i-- > 0;)
        node = child(node, addresses[i]);
    return node;
}

uint32_t HeapStacks::child(uint32_t caller, uint64_t address)
{
    const size_t mask = _index.size() - 1;
    size_t at = hashOf(caller, address) & mask;
    for (; _index[at] != 0; at = (at + 1) & mask) {
        const Node& node = _nodes[_index[at] - 1];
        if (node.address == address && node.caller == caller)
            return _index[at];
    }
    _nodes.push_back({address, caller, 0});
    _index[at] = static_cast<uint32_t>(_nodes.size());
    if (_regions.size() < kMaxRegions && _regions.insert(address >> kRegionBits).second)
        _newCode = true;
    if (++_indexed * 2 > _index.size())
        grow();
    return static_cast<uint32_t>(_nodes.size());
}

uint32_t HeapStacks::write(uint32_t stack, heap::HeapRecordWriter& writer)
{
    // Outermost first: a frame's definition names its caller's.
    std::vector<uint32_t> missing;
    uint32_t node = stack;
    for (; node != 0 && _nodes[node - 1].written == 0; node = _nodes[node - 1].caller)
        missing.push_back(node);
    for (size_t i = missing.size(); i-- > 0;) {
        Node& one = _nodes[missing[i] - 1];
        const Node caller = one.caller != 0 ? _nodes[one.caller - 1] : Node{};
        one.written =
            missing[i] == _cutNode ? writer.addCutNode() : writer.addNode(caller.written, caller.address, one.address);
    }
    return _nodes[stack - 1].written;
}

bool HeapStacks::frames(uint32_t stack, std::vector<uint64_t>& addresses) const
{
    addresses.clear();
    bool isCut = false;
    for (; stack != 0; stack = _nodes[stack - 1].caller) {
        if (_nodes[stack - 1].address != kCutAddress)
            addresses.push_back(_nodes[stack - 1].address);
        else
            isCut = true;
    }
    return isCut;
}

void HeapStacks::beginProgram()
{
    _index.assign(4096, 0);
    _indexed = 0;
    _regions.clear();
    _newCode = false;
}

bool HeapStacks::takeNewCode() { return std::exchange(_newCode, false); }

void HeapStacks::grow()
{
    std::vector<uint32_t> larger(_index.size() * 2);
    const size_t mask = larger.size() - 1;
    for (const uint32_t number : _index) {
        if (number == 0)
            continue;
        const Node& node = _nodes[number - 1];
        size_t at = hashOf(node.caller, node.address) & mask;
        while (larger[at] != 0)
            at = (at + 1) & mask;
        larger[at] = number;
    }
    _index = std::move(larger);
}

} // namespace vnt
