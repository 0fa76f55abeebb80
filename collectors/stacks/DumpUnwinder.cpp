#include "collectors/stacks/DumpUnwinder.h"

#include <linux/perf_event.h>

#include <algorithm>

#include "collectors/stacks/SamplerPlan.h"
#include "collectors/stacks/StackInterner.h"

namespace vnt {
namespace {

constexpr size_t kMaxDumpBytes = 65536; // a record's size has 16 bits
constexpr auto kUserMarker = static_cast<uint64_t>(PERF_CONTEXT_USER);

void readRegisters(ByteCursor& cursor, StackUnwinder::Sample& sample)
{
    // DWARF's numbers of the registers in the order of their bits in kDumpedRegisters: ax, bx, cx, dx, si, di, bp, sp,
    // ip, and r8 to r15 of 64-bit code.
    static constexpr uint8_t kNumbers64[] = {0, 3, 2, 1, 4, 5, 6, 7, 16, 8, 9, 10, 11, 12, 13, 14, 15};
    static constexpr uint8_t kNumbers32[] = {0, 3, 1, 2, 6, 7, 5, 4, 8};
    for (size_t i = 0; i < kDumpedRegisterCount; ++i) {
        const auto value = cursor.little<uint64_t>();
        if (sample.is64Bit)
            sample.registers.set(kNumbers64[i], value);
        else if (i < sizeof kNumbers32)
            sample.registers.set(kNumbers32[i], value & UINT32_MAX);
    }
}

/// Index of the first user frame in the chain; its size when there is none.
size_t userPart(const std::vector<uint64_t>& chain)
{
    const auto marker = std::find(chain.begin(), chain.end(), kUserMarker);
    return marker == chain.end() ? chain.size() : static_cast<size_t>(marker - chain.begin()) + 1;
}

} // namespace

bool DumpUnwinder::unwind(ByteCursor& cursor, pid_t pid, std::vector<uint64_t>& chain)
{
    const auto abi = cursor.little<uint64_t>();
    if (abi == PERF_SAMPLE_REGS_ABI_NONE) { // a kernel thread
        if (chain.size() >= _maxFrames)
            chain.push_back(StackInterner::kCut);
        return !cursor.failed();
    }
    StackUnwinder::Sample sample;
    sample.is64Bit = abi == PERF_SAMPLE_REGS_ABI_64;
    readRegisters(cursor, sample);
    const auto size = cursor.little<uint64_t>();
    const auto dump = cursor.bytes(size, kMaxDumpBytes);
    const uint64_t filled = size == 0 ? 0 : cursor.little<uint64_t>();
    if (cursor.failed() || filled > dump.size())
        return false;
    const size_t user = userPart(chain);
    sample.pid = pid;
    sample.stack = dump.first(static_cast<size_t>(filled));
    sample.chain = std::span(chain).subspan(user);
    sample.maxFrames = std::max<size_t>(_maxFrames, user + 1) - user;
    _frames.clear();
    const StackUnwinder::Outcome outcome = _unwinder.unwind(sample, _frames);
    chain.resize(user);
    if (user == 0 || chain.back() != kUserMarker)
        chain.push_back(kUserMarker);
    chain.insert(chain.end(), _frames.begin(), _frames.end());
    if (outcome.end != StackUnwinder::End::kOutermost)
        chain.push_back(StackInterner::kCut);
    // A dump that the end of the stack's mapping cut short could not have been longer.
    if (outcome.end == StackUnwinder::End::kStackMissing)
        _size.noteCut(filled < size ? 0 : dump.size());
    else
        _size.noteNeed(outcome.neededBytes);
    return true;
}

} // namespace vnt
