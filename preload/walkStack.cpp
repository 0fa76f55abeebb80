#include "preload/walkStack.h"

#include "preload/unwindRule.h"

namespace vnt {

namespace {

constexpr uint64_t kOdd = 0x9e3779b97f4a7c15U;
constexpr uintptr_t kLowestCode = 4096; // below it nothing is ever mapped (vm.mmap_min_addr)
constexpr uintptr_t kWord = sizeof(uintptr_t);

inline uint64_t mixed(uint64_t hash, uint64_t address)
{
    hash = (hash ^ address) * kOdd;
    return hash ^ (hash >> 29);
}

using Frame = WalkedStack::Frame;

enum class Step { kDone, kCut, kOn };

/// Word by word (and so compiled: see CMakeLists.txt). The words were written a moment ago one by one; read two at a
/// time they would have to reach the cache first, which costs more than the rest of a short walk.
inline void copy(Frame& to, const Frame& from)
{
    to.code = from.code;
    to.stack = from.stack;
    to.frame = from.frame;
    to.frameSlot = from.frameSlot;
}

inline UnwindRule ruleAt(uintptr_t code, journal::FrameSlot* known)
{
    journal::FrameSlot& slot = known[((code ^ (code >> 13)) * kOdd >> 40) % journal::kFrameSlots];
    if (__builtin_expect(slot.address != code, 0)) {
        slot.rule = findUnwindRule(code - 1).packed(); // the call stands before its return address
        slot.address = code;
    }
    return UnwindRule::unpacked(slot.rule);
}

/// Without rules: by the chain of frame pointers, while it leads outwards.
[[gnu::always_inline]] inline Step stepByFramePointer(Frame& frame, const StackMemory& memory)
{
    if (frame.frame < frame.stack || !memory.holds(frame.frame) || !memory.holds(frame.frame + kWord))
        return frame.frame == 0 ? Step::kDone : Step::kCut;
    const uintptr_t at = frame.frame;
    frame.code = memory.read(at + kWord);
    frame.frame = memory.read(at);
    frame.frameSlot = at;
    frame.stack = at + 2 * kWord;
    return Step::kOn;
}

[[gnu::always_inline]] inline Step stepOut(Frame& frame, const StackMemory& memory, journal::FrameSlot* known)
{
    const UnwindRule rule = ruleAt(frame.code, known);
    if (__builtin_expect(rule.kind == UnwindRule::kNone, 0))
        return stepByFramePointer(frame, memory);
    if (rule.kind == UnwindRule::kOutermost)
        return Step::kDone;
    const uintptr_t base = rule.kind == UnwindRule::kFromFramePointer ? frame.frame : frame.stack;
    const uintptr_t canonical = base + static_cast<uintptr_t>(static_cast<intptr_t>(rule.offset));
    if (canonical <= frame.stack || !memory.holds(canonical - kWord))
        return Step::kCut;
    frame.frameSlot = 0;
    if (rule.savedFrame != UnwindRule::kNotSaved) {
        const uintptr_t saved = canonical + static_cast<uintptr_t>(static_cast<intptr_t>(rule.savedFrame));
        if (saved < frame.stack || !memory.holds(saved))
            return Step::kCut;
        frame.frame = memory.read(saved);
        frame.frameSlot = saved;
    }
    frame.code = memory.read(canonical - kWord);
    frame.stack = canonical;
    return Step::kOn;
}

/// Everything the latest walk read outside of its frame `number`, which is where this walk has come to as well, is
/// still the same: then so is the rest of the stack.
bool isRestUnchanged(const WalkedStack& stack, uint32_t number, const StackMemory& memory)
{
    if (stack.endSlot != 0 && (!memory.holds(stack.endSlot) || memory.read(stack.endSlot) != stack.endCode))
        return false;
    if (number == 0)
        return true;
    if (!memory.holds(stack.frames[0].stack - kWord))
        return false;
    uintptr_t difference = 0;
    for (uint32_t i = 0; i < number; ++i) {
        const Frame& outer = stack.frames[i];
        difference |= memory.read(outer.stack - kWord) ^ outer.code;
        if (outer.frameSlot != 0)
            difference |= memory.read(outer.frameSlot) ^ outer.frame;
    }
    return difference == 0;
}

bool isSame(const Frame& a, const Frame& b) { return a.stack == b.stack && a.code == b.code && a.frame == b.frame; }

/// The fresh frames become part of the stack, on top of the first `kept`.
void append(WalkedStack& stack, uint32_t kept, uint32_t fresh)
{
    uint64_t hash = kept == 0 ? kOdd : stack.frames[kept - 1].hash;
    for (uint32_t i = fresh; i-- > 0;) {
        hash = mixed(hash, stack.fresh[i].code);
        copy(stack.frames[kept], stack.fresh[i]);
        stack.frames[kept++].hash = hash;
    }
    stack.count = kept;
}

} // namespace

void walkStack(uintptr_t frame, const StackMemory& memory, journal::FrameSlot* known, WalkedStack& stack)
{
    if (!memory.holds(frame) || !memory.holds(frame + kWord)) {
        stack.count = 0;
        stack.cut = 1;
        return;
    }
    Frame at{memory.read(frame + kWord), frame + 2 * kWord, memory.read(frame), frame, 0};
    uint32_t fresh = 0;
    // Frames of the latest walk that are not inside of this one's. A copied stack has no latest walk.
    uint32_t latest = memory.shift == 0 ? stack.count : 0;
    Step step = Step::kOn;
    for (;;) {
        if (at.code < kLowestCode) {
            stack.endSlot = at.stack - kWord;
            stack.endCode = at.code;
            step = Step::kDone;
            break;
        }
        while (latest > 0 && stack.frames[latest - 1].stack < at.stack)
            --latest;
        if (latest > 0 && fresh + latest <= journal::kMaxFrames && isSame(stack.frames[latest - 1], at)
            && isRestUnchanged(stack, latest - 1, memory)) {
            append(stack, latest, fresh);
            return;
        }
        copy(stack.fresh[fresh++], at);
        if (fresh == journal::kMaxFrames) {
            step = Step::kCut;
            break;
        }
        step = stepOut(at, memory, known);
        if (step != Step::kOn)
            break;
    }
    if (step != Step::kDone || at.code >= kLowestCode)
        stack.endSlot = 0;
    stack.cut = step == Step::kDone ? 0 : 1;
    append(stack, 0, fresh);
}

} // namespace vnt
