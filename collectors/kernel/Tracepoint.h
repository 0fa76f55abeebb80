#pragma once

#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "collectors/common/TraceFs.h"
#include "collectors/common/TracepointFormat.h"
#include "collectors/kernel/EventTable.h"

namespace vnt {

/// One number field in a raw record. Reading costs 1 to 2 ns.
struct ValueSlot {
    uint32_t offset = 0;
    uint32_t sizeBytes = 0; ///< 1, 2, 4 or 8; 0: this kernel has no such field
    bool isSigned = false;

    /// Sign-extended where the field is signed; 0 past the record's end.
    [[nodiscard]] uint64_t in(std::span<const std::byte> record) const
    {
        uint64_t value = 0;
        if (sizeBytes == 0 || offset + sizeBytes > record.size())
            return 0;
        std::memcpy(&value, record.data() + offset, sizeBytes);
        const unsigned unused = 64 - sizeBytes * 8;
        return isSigned ? static_cast<uint64_t>(static_cast<int64_t>(value << unused) >> unused) : value;
    }
};

/// A tracepoint of the running kernel and how its records are read. Immutable.
struct Tracepoint {
    const TracepointPlan* plan = nullptr; ///< into tracepointPlans()
    TracepointFormat format;
    std::vector<ValueSlot> values; ///< as the plan names them; of a system call's entry the six arguments
    ValueSlot about; ///< of TracepointPlan::about
    ValueSlot call; ///< number of the system call

    /// The plan's text field, cut at its first zero byte; empty when there is none.
    [[nodiscard]] std::string_view textIn(std::span<const std::byte> record) const;

    /// Fits a plan to a description.
    static Tracepoint create(const TracepointPlan& plan, TracepointFormat format);
};

/// The kernel's tracepoints for the classes of `codes`; those that it lacks are left out. Errors: kUnsupported when
/// nothing is left, kInvalid for a code that is no class of eventClasses().
Result<std::vector<Tracepoint>> loadTracepoints(const TraceFs& files, std::span<const uint32_t> codes);

} // namespace vnt
