#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "collectors/unwind/AddressSpaces.h"
#include "collectors/unwind/evaluate.h"

namespace vnt {

/// How to get from a frame to its caller's at one code address, as the cache keeps it.
struct UnwindStep {
    enum Kind : uint8_t {
        kNoCode, ///< nothing is mapped there
        kUnknown, ///< the frame pointer is tried
        kFromStackPointer,
        kFromFramePointer,
        kOutermost,
        kGeneral, ///< number `offset` of the rules that do not fit here
    };
    static constexpr int16_t kNotSaved = INT16_MIN;

    Kind kind = kNoCode;
    bool isSignalFrame = false; ///< the outer frame was interrupted, it did not call
    int16_t savedFrame = kNotSaved; ///< of the saved frame pointer, from the canonical address
    int32_t offset = 0; ///< of the canonical address, from the register
};

/// How a frame was left, for telling how little of the stack would have done.
struct LeftFrame {
    bool byFramePointer = false;
    uint64_t frame = 0; ///< its frame pointer
    size_t reach = 0; ///< of the stack, read before
};

/// Walks user stacks by the modules' call-frame information, on a copy of each stack's innermost part. Where that copy
/// ends among frames that keep frame pointers, the chain of frame pointers that the kernel followed gives the rest.
/// One thread. A frame costs some 10 ns when its code address is known, about a microsecond the first time. Memory:
/// some 8 MiB and ModuleTable::kMaxBytes at most.
class StackUnwinder {
public:
    /// What a sample tells of a thread.
    struct Sample {
        pid_t pid = 0;
        bool is64Bit = true;
        FrameRegisters registers;
        std::span<const std::byte> stack; ///< from the stack pointer on
        std::span<const uint64_t> chain; ///< by frame pointers: where it was, then return addresses; may be empty
        size_t maxFrames = 127;
    };
    enum class End {
        kOutermost, ///< the stack is whole
        kStackMissing, ///< more of the stack would have been needed
        kTooDeep, ///< maxFrames
        kBroken, ///< no rule leads on
    };
    struct Outcome {
        End end = End::kBroken;
        size_t neededBytes = 0; ///< of the stack, for the same result; holds unless the end is kStackMissing
    };

    /// Appends where the thread was and its return addresses to `frames`.
    Outcome unwind(const Sample& sample, std::vector<uint64_t>& frames);

    AddressSpaces& spaces() { return _spaces; }
    [[nodiscard]] const ModuleTable& modules() const { return _modules; }

    // For StackWalk.
    UnwindStep ruleAt(AddressSpace& space, uint64_t address);
    [[nodiscard]] const frames::Row& general(const UnwindStep& step) const
    {
        return _general[static_cast<size_t>(step.offset)].row;
    }
    std::vector<LeftFrame>& scratch() { return _scratch; }

private:
    struct CacheEntry {
        uint64_t address = 0;
        uint64_t space = 0; ///< version; 0: free
        UnwindStep rule;
    };
    struct GeneralRule {
        frames::Row row;
        std::vector<uint8_t> expressions; ///< those of `row`
    };

    UnwindStep findRule(AddressSpace& space, uint64_t address);
    const ModuleFrames* moduleOf(pid_t pid, AddressSpace::Mapping& mapping);
    UnwindStep compact(const frames::Row& row, bool isSignalFrame, const frames::Machine& machine);
    UnwindStep keepGeneral(const frames::Row& row, bool isSignalFrame);

    AddressSpaces _spaces;
    ModuleTable _modules;
    std::vector<CacheEntry> _cache; ///< direct-mapped; empty before the first walk
    std::vector<GeneralRule> _general;
    std::vector<LeftFrame> _scratch;
};

} // namespace vnt
