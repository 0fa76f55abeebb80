#include "collectors/stacks/StackInterner.h"

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr uint64_t kFirstContextMarker = static_cast<uint64_t>(PERF_CONTEXT_MAX); // -4095, perf_event_open(2)
constexpr uint64_t kKernelHalf = uint64_t{1} << 63;
constexpr uint64_t kOdd = 0x9e3779b97f4a7c15U;
constexpr size_t kMaxStacks = size_t{1} << 20; // as many as nodes: every stack has an innermost node of its own

uint64_t seed()
{
    // Unknown to the target, which chooses its own addresses.
    static const uint64_t value = [] {
        uint64_t random = 0;
        VNT_CHECK(sys::randomBytes(&random, sizeof random).ok());
        return random;
    }();
    return value;
}

__extension__ using Wide = unsigned __int128;

uint64_t mixed(uint64_t a, uint64_t b)
{
    const auto product = static_cast<Wide>(a) * b;
    return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

/// About 0.7 ns a frame: two multiplications in flight.
uint64_t hashOf(std::span<const uint64_t> chain)
{
    uint64_t a = seed() ^ chain.size();
    uint64_t b = ~seed();
    size_t i = 0;
    for (; i + 1 < chain.size(); i += 2) {
        a = mixed(a ^ chain[i], kOdd);
        b = mixed(b ^ chain[i + 1], 0xd6e8feb86659fd93U);
    }
    if (i < chain.size())
        a = mixed(a ^ chain[i], kOdd);
    return mixed(a ^ (b << 1 | b >> 63), kOdd) | 1;
}

uint64_t hashOf(uint32_t caller, uint64_t address)
{
    return mixed(address ^ seed(), (uint64_t{caller} << 1 | 1) * kOdd);
}

} // namespace

bool StackInterner::roomFor(size_t frames) const
{
    return _nodeCount + frames + 1 < stacks::kMaxNodes && _stackCount < kMaxStacks;
}

void StackInterner::clear()
{
    _stacks.assign(1024, {});
    _nodes.assign(4096, {});
    _stackCount = _nodeCount = 0;
    _cutNode = 0;
}

uint32_t StackInterner::intern(std::span<const uint64_t> chain, uint32_t maxFrames, stacks::StackDefinitions& writer)
{
    if (chain.empty())
        return 0;
    const uint64_t hash = hashOf(chain);
    size_t at = static_cast<size_t>(hash >> 1) & (_stacks.size() - 1);
    for (; _stacks[at].hash != 0; at = (at + 1) & (_stacks.size() - 1)) {
        if (_stacks[at].hash == hash)
            return _stacks[at].stack;
    }
    const uint32_t stack = define(chain, maxFrames, writer);
    _stacks[at] = {hash, stack};
    if (++_stackCount * 2 > _stacks.size())
        growStacks();
    return stack;
}

uint32_t StackInterner::define(std::span<const uint64_t> chain, uint32_t maxFrames, stacks::StackDefinitions& writer)
{
    size_t frames = 0;
    for (const uint64_t address : chain)
        frames += address < kFirstContextMarker;
    if (frames == 0)
        return 0;
    uint32_t node = 0;
    uint64_t callerAddress = 0;
    if (frames >= maxFrames || chain.back() == kCut) {
        if (_cutNode == 0) {
            _cutNode = writer.addCutNode();
            ++_nodeCount;
        }
        node = _cutNode;
    }
    for (size_t i = chain.size(); i-- > 0;) {
        if (chain[i] >= kFirstContextMarker)
            continue;
        node = child(node, callerAddress, chain[i], writer);
        callerAddress = chain[i];
    }
    return node;
}

uint32_t StackInterner::child(uint32_t caller, uint64_t callerAddress, uint64_t address,
                              stacks::StackDefinitions& writer)
{
    size_t at = static_cast<size_t>(hashOf(caller, address)) & (_nodes.size() - 1);
    for (; _nodes[at].node != 0; at = (at + 1) & (_nodes.size() - 1)) {
        if (_nodes[at].address == address && _nodes[at].caller == caller)
            return _nodes[at].node;
    }
    const uint32_t node = writer.addNode(caller, callerAddress, address);
    _nodes[at] = {address, caller, node};
    if (address >= kKernelHalf)
        _kernelAddresses.push_back(address);
    if (++_nodeCount * 2 > _nodes.size())
        growNodes();
    return node;
}

void StackInterner::growStacks()
{
    std::vector<StackSlot> larger(_stacks.size() * 2);
    for (const StackSlot& slot : _stacks) {
        size_t at = static_cast<size_t>(slot.hash >> 1) & (larger.size() - 1);
        while (slot.hash != 0 && larger[at].hash != 0)
            at = (at + 1) & (larger.size() - 1);
        if (slot.hash != 0)
            larger[at] = slot;
    }
    _stacks = std::move(larger);
}

void StackInterner::growNodes()
{
    std::vector<NodeSlot> larger(_nodes.size() * 2);
    for (const NodeSlot& slot : _nodes) {
        if (slot.node == 0)
            continue;
        size_t at = static_cast<size_t>(hashOf(slot.caller, slot.address)) & (larger.size() - 1);
        while (larger[at].node != 0)
            at = (at + 1) & (larger.size() - 1);
        larger[at] = slot;
    }
    _nodes = std::move(larger);
}

} // namespace vnt
