#include "collectors/kernel/EventTable.h"

namespace vnt {
namespace {

using trace::EventKind;

constexpr uint32_t kScheduling = 0x0140fffe;
constexpr uint32_t kNames = 0x0700fffe;
constexpr uint32_t kLocks = 0x0160fffe;
constexpr uint32_t kTraps = 0x010afffe;
constexpr uint32_t kInterruptHandlers = 0x0110fffe;
constexpr uint32_t kMessages = 0x0120fffe;
constexpr uint32_t kInterrupts = 0x0105fffe;
constexpr uint32_t kProcesses = 0x0401fffe;
constexpr uint32_t kSystemCalls = 0x040cfffe;
constexpr uint32_t kAsynchronous = 0x040dfffe;
constexpr uint32_t kMemory = 0x0130fffe;

constexpr EventClass kClasses[] = {
    {kScheduling, "scheduling", nullptr},
    {kNames, "threads and their names", nullptr},
    {0x010cfffe, "kernel traps", "there is one kind of system call, recorded under its own class"},
    {kLocks, "kernel locks", nullptr},
    {kTraps, "traps of user code", nullptr},
    {0x0106fffe, "alignment faults", "x86 raises none by default; a program that asks for them gets a signal"},
    {0x010dfffe, "trace traps", "a debugger's traps reach the process as signals, recorded with the user traps"},
    {kInterruptHandlers, "deferred interrupt work", nullptr},
    {kMessages, "messages between processes", nullptr},
    {0x0131fffe, "kernel allocations", "its own allocations are too frequent to record beside everything else"},
    {kInterrupts, "interrupts", nullptr},
    {kProcesses, "processes", nullptr},
    {kSystemCalls, "system calls", nullptr},
    {kAsynchronous, "disk and asynchronous input and output", nullptr},
    {0xff00fffe, "remote calls", "no generated remote calls pass the kernel; their messages are recorded as such"},
    {kMemory, "virtual memory", nullptr},
};

// What `about` costs without a BPF program: the whole machine's events pass the recorder in any case.
constexpr TracepointPlan kPlans[] = {
    {kScheduling, "sched", "sched_switch", EventKind::kSwitch, {"prev_state", "next_pid"}, nullptr, "next_pid"},
    {kScheduling, "sched", "sched_wakeup", EventKind::kWakeup, {"pid", "target_cpu"}, nullptr, "pid"},
    {kScheduling, "sched", "sched_wakeup_new", EventKind::kWakeup, {"pid", "target_cpu"}, nullptr, "pid"},
    {kNames, "task", "task_newtask", EventKind::kNewTask, {"pid", "clone_flags"}, nullptr, nullptr, true},
    {kNames, "task", "task_rename", EventKind::kRename, {"pid"}, "newcomm", "pid"},
    {kLocks, "lock", "contention_begin", EventKind::kLockBegin, {"lock_addr", "flags"}, nullptr, nullptr, true},
    {kLocks, "lock", "contention_end", EventKind::kLockEnd, {"lock_addr", "ret"}, nullptr, nullptr, true},
    {kTraps, "signal", "signal_generate", EventKind::kSignalGenerate, {"sig", "code", "pid", "result"}, nullptr, "pid"},
    {kTraps, "signal", "signal_deliver", EventKind::kSignalDeliver, {"sig", "code", "sa_handler"}, nullptr},
    {kInterruptHandlers, "irq", "softirq_entry", EventKind::kSoftInterruptEnter, {"vec"}, nullptr},
    {kInterruptHandlers, "irq", "softirq_exit", EventKind::kSoftInterruptExit, {"vec"}, nullptr},
    {kMessages, "sock", "sock_send_length", EventKind::kSend, {"sk", "family", "protocol", "ret"}, nullptr},
    {kMessages, "sock", "sock_recv_length", EventKind::kReceive, {"sk", "family", "protocol", "ret"}, nullptr},
    {kInterrupts, "irq", "irq_handler_entry", EventKind::kInterruptEnter, {"irq"}, "name"},
    {kInterrupts, "irq", "irq_handler_exit", EventKind::kInterruptExit, {"irq", "ret"}, nullptr},
    {kProcesses, "sched", "sched_process_fork", EventKind::kFork, {"child_pid"}, nullptr},
    {kProcesses, "sched", "sched_process_exec", EventKind::kExec, {}, "filename"},
    {kProcesses, "sched", "sched_process_exit", EventKind::kExit, {"group_dead"}, nullptr},
    {kSystemCalls, "raw_syscalls", "sys_enter", EventKind::kCallEnter, {}, nullptr, nullptr, true},
    {kSystemCalls, "raw_syscalls", "sys_exit", EventKind::kCallExit, {"ret"}, nullptr},
    {kAsynchronous, "block", "block_rq_issue", EventKind::kDiskIssue, {"dev", "sector", "bytes"}, "rwbs"},
    {kAsynchronous,
     "block",
     "block_rq_complete",
     EventKind::kDiskComplete,
     {"dev", "sector", "nr_sector", "error"},
     "rwbs"},
    {kAsynchronous, "io_uring", "io_uring_submit_req", EventKind::kRingSubmit, {"req", "opcode"}, nullptr},
    {kAsynchronous, "io_uring", "io_uring_complete", EventKind::kRingComplete, {"req", "res"}, nullptr},
    {kMemory,
     "exceptions",
     "page_fault_user",
     EventKind::kPageFault,
     {"address", "ip", "error_code"},
     nullptr,
     nullptr,
     true},
    {kMemory,
     "exceptions",
     "page_fault_kernel",
     EventKind::kPageFault,
     {"address", "ip", "error_code"},
     nullptr,
     nullptr,
     true},
};

} // namespace

std::span<const EventClass> eventClasses() { return kClasses; }
std::span<const TracepointPlan> tracepointPlans() { return kPlans; }

} // namespace vnt
