#include "bundle/exports/KernelSpans.h"

namespace vnt {

using trace::EventKind;

namespace {

// Groups of kernelSpanOf().
constexpr uint32_t kCalls = 1;
constexpr uint32_t kInterrupts = 2;
constexpr uint32_t kSoftInterrupts = 3;
constexpr uint32_t kLocks = 4;

} // namespace

KernelSpanEnd kernelSpanOf(EventKind kind)
{
    using Kind = KernelSpanEnd::Kind;
    switch (kind) {
    case EventKind::kCallEnter:
        return {Kind::kBegin, kCalls};
    case EventKind::kCallExit:
        return {Kind::kEnd, kCalls};
    case EventKind::kInterruptEnter:
        return {Kind::kBegin, kInterrupts};
    case EventKind::kInterruptExit:
        return {Kind::kEnd, kInterrupts};
    case EventKind::kSoftInterruptEnter:
        return {Kind::kBegin, kSoftInterrupts};
    case EventKind::kSoftInterruptExit:
        return {Kind::kEnd, kSoftInterrupts};
    case EventKind::kLockBegin:
        return {Kind::kBegin, kLocks};
    case EventKind::kLockEnd:
        return {Kind::kEnd, kLocks};
    default:
        return {};
    }
}

std::string_view kernelCategoryOf(EventKind kind)
{
    switch (kind) {
    case EventKind::kSwitch:
    case EventKind::kWakeup:
        return "scheduling";
    case EventKind::kCallEnter:
    case EventKind::kCallExit:
        return "system call";
    case EventKind::kNewTask:
    case EventKind::kRename:
    case EventKind::kFork:
    case EventKind::kExec:
    case EventKind::kExit:
        return "process";
    case EventKind::kSignalGenerate:
    case EventKind::kSignalDeliver:
        return "signal";
    case EventKind::kPageFault:
        return "memory";
    case EventKind::kInterruptEnter:
    case EventKind::kInterruptExit:
    case EventKind::kSoftInterruptEnter:
    case EventKind::kSoftInterruptExit:
        return "interrupt";
    case EventKind::kLockBegin:
    case EventKind::kLockEnd:
        return "lock";
    case EventKind::kSend:
    case EventKind::kReceive:
        return "network";
    case EventKind::kDiskIssue:
    case EventKind::kDiskComplete:
    case EventKind::kRingSubmit:
    case EventKind::kRingComplete:
        return "disk";
    case EventKind::kOther:
        break;
    }
    return "kernel";
}

std::string_view kernelEventName(const TraceEvent& event)
{
    const trace::TypeRecord& type = event.type();
    switch (type.kind) {
    case EventKind::kCallEnter:
    case EventKind::kCallExit:
        return type.label.empty() ? std::string_view(type.name) : std::string_view(type.label);
    case EventKind::kInterruptEnter:
        return event.text().empty() ? std::string_view(type.name) : event.text();
    case EventKind::kSoftInterruptEnter:
        return "softirq";
    case EventKind::kLockBegin:
        return "kernel lock";
    default:
        return type.name;
    }
}

} // namespace vnt
