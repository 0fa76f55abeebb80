#pragma once

#include <stdint.h>

namespace vnt {

/// How to get from a frame to its caller's, at one code address: where the caller's stack pointer was (the frame's
/// canonical address) and where its frame pointer is saved. The return address stands right below the canonical
/// address.
struct UnwindRule {
    enum Kind : uint8_t {
        kNone, ///< nothing is known: the frame pointer is tried
        kFromStackPointer,
        kFromFramePointer,
        kOutermost, ///< nothing called this
    };
    static constexpr int32_t kNotSaved = INT16_MIN; ///< the frame pointer is still the caller's

    Kind kind = kNone;
    int32_t offset = 0; ///< of the canonical address from that register
    int32_t savedFrame = kNotSaved; ///< of the saved frame pointer from the canonical address

    [[nodiscard]] uint64_t packed() const
    {
        return kind | uint64_t{static_cast<uint16_t>(savedFrame)} << 16 | uint64_t{static_cast<uint32_t>(offset)} << 32;
    }
    static UnwindRule unpacked(uint64_t word)
    {
        UnwindRule rule;
        rule.kind = static_cast<Kind>(word & 0xff);
        rule.savedFrame = static_cast<int16_t>(word >> 16);
        rule.offset = static_cast<int32_t>(word >> 32);
        return rule;
    }
};

/// By the call-frame information of the module that holds `address`. About a microsecond; no lock, no allocation. Needs
/// _dl_find_object(3) of the GNU C library, since 2.35: without it nothing is known.
UnwindRule findUnwindRule(uintptr_t address);

} // namespace vnt
