#pragma once

#include <stdint.h>

#include "preload/StackMemory.h"
#include "records/HeapJournal.h"

namespace vnt {

/// A thread's latest stack, kept from one walk to the next: most of it is still there the next time, and to see that
/// costs a fraction of walking. Lives in memory of the thread's own; all zero at first.
struct WalkedStack {
    /// One frame, as its registers are after the call it is in has returned.
    struct Frame {
        uintptr_t code; ///< return address; it stands right below `stack`
        uintptr_t stack;
        uintptr_t frame; ///< frame pointer
        uintptr_t frameSlot; ///< where it was saved; 0: it is the inner frame's
        uint64_t hash; ///< of the code addresses from the outermost frame to this one
    };
    uint32_t count;
    uint32_t cut; ///< 1: there are outer frames that could not be reached
    uintptr_t endSlot; ///< what was read there ended the walk; 0: it ended otherwise
    uintptr_t endCode;
    Frame frames[journal::kMaxFrames]; ///< outermost first
    Frame fresh[journal::kMaxFrames]; ///< innermost first: those of a walk that was not known yet

    /// Never 0.
    [[nodiscard]] uint64_t hash() const { return count == 0 ? 1 : frames[count - 1].hash | 1; }
    /// Innermost is number 0.
    [[nodiscard]] uint64_t address(uint32_t number) const { return frames[count - 1 - number].code; }
};

/// Walks from the frame of an interposed function (its __builtin_frame_address(0)) outwards. `known` holds
/// kFrameSlots entries of the calling thread. Nothing outside `memory` is read but the modules' unwind tables.
/// A new frame costs some 8 ns once its code address is known, one that was there the last time 1 to 2.
void walkStack(uintptr_t frame, const StackMemory& memory, journal::FrameSlot* known, WalkedStack& stack);

} // namespace vnt
