#pragma once

#include <optional>

#include "collectors/unwind/StackUnwinder.h"

namespace vnt {

/// One walk of StackUnwinder.
class StackWalk {
public:
    StackWalk(StackUnwinder& unwinder, const StackUnwinder::Sample& sample, std::vector<uint64_t>& frames);
    StackUnwinder::Outcome run();

private:
    using End = StackUnwinder::End;
    enum class Step { kOn, kDone, kFailed };

    Step stepOut(const UnwindStep& rule);
    Step stepByFramePointer();
    Step stepGeneral(const frames::Row& row, bool isSignalFrame);
    Step leaveTo(uint64_t canonical, std::optional<uint64_t> code, std::optional<uint64_t> frame);
    std::optional<uint64_t> valueOf(const frames::Place& place, uint64_t canonical, uint64_t same);
    End finishByChain(const UnwindStep& rule);
    End finishByTail(uint64_t address);
    size_t learn();
    [[nodiscard]] bool keepsFramePointer(const UnwindStep& rule) const;
    /// How many frame pointers, followed from the innermost on, lead to `frame` within `bytes` of the stack.
    std::optional<size_t> followedTo(uint64_t frame, size_t bytes);
    [[nodiscard]] size_t count() const { return _frames.size() - _first; }
    bool push(uint64_t address);

    StackUnwinder& _unwinder;
    const StackUnwinder::Sample& _sample;
    AddressSpace& _space;
    std::vector<uint64_t>& _frames;
    const size_t _first; ///< in _frames
    const frames::Machine& _machine;
    const uint64_t _word;
    FrameRegisters _registers;
    StackDump _dump;
    std::vector<LeftFrame>& _left;
    bool _called = false; ///< the address at hand is a return address
};

} // namespace vnt
