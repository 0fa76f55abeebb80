#pragma once

#include <cstdint>
#include <span>

#include "records/TraceRecords.h"

namespace vnt {

/// One class of kernel events that can be asked for: a filter code is class, subclass and 0xfffe.
struct EventClass {
    uint32_t code = 0;
    const char* name = nullptr;
    const char* without = nullptr; ///< not null: why this system has no events of that class
};

/// A tracepoint that stands for a class, and what of its record is kept. Fields that a kernel does not have are
/// recorded as 0.
struct TracepointPlan {
    uint32_t code = 0; ///< the class
    const char* system = nullptr;
    const char* name = nullptr;
    trace::EventKind kind = trace::EventKind::kOther;
    const char* values[4] = {}; ///< names of number fields; null ends them. System calls have theirs elsewhere.
    const char* text = nullptr; ///< name of a text field
    /// Field with the id of a thread that the event is about, besides the one running: recorded for either.
    const char* about = nullptr;
    bool hexadecimal = false;
};

/// The sixteen classes, in the order in which clients ask for them.
std::span<const EventClass> eventClasses();
/// All tracepoints of all classes.
std::span<const TracepointPlan> tracepointPlans();

} // namespace vnt
