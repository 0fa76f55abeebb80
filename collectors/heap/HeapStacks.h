#pragma once

#include <cstdint>
#include <span>
#include <unordered_set>
#include <vector>

#include "records/HeapRecordWriter.h"

namespace vnt {

/// The call stacks of a target's allocations as a tree of frames; a stack is the number of its innermost frame, 0 none.
/// A stack is written to a recording when an allocation of it is. Bounded: 64 MiB. One thread.
class HeapStacks {
public:
    /// `addresses`: return addresses, innermost first. `cut`: outer frames are missing. 0 when the tree is full.
    uint32_t intern(std::span<const uint64_t> addresses, bool cut);

    /// The number of the stack in the recording, defined there if it is new. 0 for 0.
    uint32_t written(uint32_t stack, heap::HeapRecordWriter& writer)
    {
        return stack == 0 ? 0 : _nodes[stack - 1].written != 0 ? _nodes[stack - 1].written : write(stack, writer);
    }

    /// Replaces `addresses` by the frames of `stack`, innermost first. True when outer frames are missing.
    bool frames(uint32_t stack, std::vector<uint64_t>& addresses) const;

    /// The target runs another program: addresses mean something else from here on. Stacks given out stay what they
    /// are.
    void beginProgram();

    /// Code was met in a place where none had been seen since the last call.
    [[nodiscard]] bool takeNewCode();
    [[nodiscard]] bool isFull() const { return _nodes.size() + kReserve > heap::kMaxNodes; }

private:
    static constexpr size_t kReserve = 512; // more than one stack needs
    struct Node {
        uint64_t address = 0;
        uint32_t caller = 0;
        uint32_t written = 0;
    };
    uint32_t child(uint32_t caller, uint64_t address);
    uint32_t write(uint32_t stack, heap::HeapRecordWriter& writer);
    void grow();

    std::vector<Node> _nodes;
    std::vector<uint32_t> _index = std::vector<uint32_t>(4096); ///< hash table of node numbers; 0: free
    size_t _indexed = 0;
    uint32_t _cutNode = 0;
    std::unordered_set<uint64_t> _regions; ///< 64 KiB pieces of the address space with known code
    bool _newCode = false;
};

} // namespace vnt
