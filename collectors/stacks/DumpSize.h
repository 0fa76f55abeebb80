#pragma once

#include <cstddef>
#include <cstdint>

namespace vnt {

/// How much of the stack is copied with each sample: as little as gives nearly every stack whole. Code with frame
/// pointers needs next to nothing, other code all that its stacks take. Begins with 8 KiB, so that the need is known
/// after the first samples. One thread.
class DumpSize {
public:
    static constexpr uint32_t kSizes[] = {512, 2048, 8192, 32768}; ///< multiples of 8; perf_event_open(2) takes 65528
    static constexpr uint32_t kUsual = 8192; ///< to begin with
    static constexpr size_t kSizeCount = sizeof kSizes / sizeof *kSizes;

    /// Limits: what a ring of `ringBytes` holds, and copying at most 100 MB a second on a busy processor.
    DumpSize(uint64_t intervalNs, size_t ringBytes);

    [[nodiscard]] uint32_t bytes() const { return kSizes[_index]; }
    /// A stack for which `neededBytes` would have done.
    void noteNeed(size_t neededBytes);
    /// A stack that was cut because only `dumpBytes` of it were there.
    void noteCut(size_t dumpBytes);
    /// True when bytes() has changed.
    bool review();
    /// The need is known: there was a review of enough samples.
    [[nodiscard]] bool isKnown() const { return _isKnown; }

private:
    void startOver();

    bool _isKnown = false;
    size_t _index = 0;
    size_t _largest = 0;
    uint64_t _needs[kSizeCount + 1] = {}; ///< by the smallest size that does
    uint64_t _cut = 0;
    uint64_t _samples = 0;
    uint64_t _samplesToShrink; ///< grows with each time that shrinking was wrong
};

} // namespace vnt
