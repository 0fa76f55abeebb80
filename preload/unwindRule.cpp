// Finds entries by .eh_frame_hdr (Linux Standard Base, "Exception Frames"). Rules that name other registers than the
// stack and the frame pointer, or compute, give kNone.

#include "preload/unwindRule.h"

#include <dlfcn.h>
#include <stddef.h>
#include <string.h>

#include "collectors/unwind/CallFrames.h" // free-standing

extern "C" int _dl_find_object(void*, dl_find_object*) noexcept __attribute__((weak));

namespace vnt {

namespace {

#ifdef __x86_64__
constexpr frames::Machine kMachine = frames::kX86_64;
#else
constexpr frames::Machine kMachine = frames::kX86;
#endif

/// The place in the table of .eh_frame_hdr whose function may hold `address`.
const uint8_t* findFde(const uint8_t* header, uintptr_t address)
{
    struct Entry {
        int32_t function;
        int32_t fde;
    };
    // Version 1, pointer pc-relative sdata4, count udata4, table datarel sdata4: what every linker writes.
    constexpr uint8_t kUsual[] = {1, 0x1b, 0x03, 0x3b};
    if (::memcmp(header, kUsual, sizeof kUsual) != 0)
        return nullptr;
    uint32_t count = 0;
    ::memcpy(&count, header + 8, sizeof count);
    const auto* table = reinterpret_cast<const Entry*>(header + 12);
    const auto wanted = static_cast<intptr_t>(address - reinterpret_cast<uintptr_t>(header));
    uint32_t low = 0;
    uint32_t high = count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (table[middle].function <= wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low == 0 ? nullptr : header + table[low - 1].fde;
}

UnwindRule ruleOf(const frames::Row& row)
{
    using frames::Place;
    UnwindRule rule;
    if (row.returnAddress.kind == Place::kUndefined) {
        rule.kind = UnwindRule::kOutermost;
        return rule;
    }
    const bool fromStack = row.canonical.offset == int64_t{kMachine.stackRegister};
    const bool saved = row.frame.kind == Place::kSaved;
    if (row.canonical.kind != Place::kRegister
        || (!fromStack && row.canonical.offset != int64_t{kMachine.frameRegister})
        || row.returnAddress.kind != Place::kSaved || row.returnAddress.offset != -int64_t{kMachine.wordBytes}
        || (!saved && row.frame.kind != Place::kSame && row.frame.kind != Place::kUndefined) || row.canonicalOffset < 0
        || row.canonicalOffset > INT32_MAX || row.frame.offset < INT16_MIN + 1 || row.frame.offset > INT16_MAX)
        return rule;
    rule.kind = fromStack ? UnwindRule::kFromStackPointer : UnwindRule::kFromFramePointer;
    rule.offset = static_cast<int32_t>(row.canonicalOffset);
    rule.savedFrame = saved ? static_cast<int32_t>(row.frame.offset) : UnwindRule::kNotSaved;
    return rule;
}

} // namespace

UnwindRule findUnwindRule(uintptr_t address)
{
    dl_find_object module{};
    if (!&_dl_find_object || _dl_find_object(reinterpret_cast<void*>(address), &module) != 0 || !module.dlfo_eh_frame)
        return {};
    const uint8_t* place = findFde(static_cast<const uint8_t*>(module.dlfo_eh_frame), address);
    if (!place)
        return {};
    // The linker made it: an entry's own length is the limit.
    const auto* const limit = reinterpret_cast<const uint8_t*>(UINTPTR_MAX);
    frames::Cursor cursor = frames::entryAt(place, limit, 0);
    const uint8_t* const common = frames::cieOf(cursor, nullptr);
    frames::Cie cie;
    frames::Fde fde;
    if (!common || !frames::readCie(frames::entryAt(common, limit, 0), kMachine, cie) || cie.isSignalFrame
        || !frames::readFde(cursor, kMachine, cie, fde) || address - fde.begin >= fde.size)
        return {};
    frames::Row row;
    return frames::Program(fde, kMachine, address).run(row) ? ruleOf(row) : UnwindRule{};
}

} // namespace vnt
