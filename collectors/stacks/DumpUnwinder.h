#pragma once

#include <cstdint>
#include <vector>

#include "collectors/stacks/DumpSize.h"
#include "collectors/unwind/StackUnwinder.h"
#include "platform/base/ByteCursor.h"

namespace vnt {

/// Gives samples the user stacks that their registers and dumps tell of (kDumpType), and learns from them how large
/// dumps have to be. One thread. About half a microsecond for 32 frames.
class DumpUnwinder {
public:
    DumpUnwinder(uint64_t intervalNs, size_t ringBytes, uint32_t maxFrames)
        : _size(intervalNs, ringBytes),
          _maxFrames(maxFrames)
    {
    }
    /// `cursor` stands behind the chain of a PERF_RECORD_SAMPLE. Puts the unwound stack in place of the chain's user
    /// part, with StackInterner::kCut behind one that is not whole. False: the record contradicts itself; the chain
    /// stays.
    bool unwind(ByteCursor& cursor, pid_t pid, std::vector<uint64_t>& chain);

    DumpSize& size() { return _size; }
    AddressSpaces& spaces() { return _unwinder.spaces(); }

private:
    DumpSize _size;
    StackUnwinder _unwinder;
    std::vector<uint64_t> _frames;
    const uint32_t _maxFrames;
};

} // namespace vnt
