#pragma once

#include <linux/perf_event.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/base/Mapping.h"
#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// perf_event_open(2) and what belongs to it, one thin function per call.
namespace vnt::perf {

/// An event on thread `pid` (-1: all) and processor `cpu` (-1: any, with a thread). With `outputFd` its records go to
/// that event's ring, which must be on the same processor and clock.
Result<UniqueFd> openEvent(const perf_event_attr& attributes, pid_t pid, int cpu, int outputFd = -1);
/// For an inherited event these reach the events of all its children too.
Status enable(int fd);
Status disable(int fd);
/// PERF_EVENT_IOC_ID: what PERF_SAMPLE_IDENTIFIER shows.
Result<uint64_t> eventId(int fd);
/// PERF_EVENT_IOC_SET_BPF: `program` decides which overflows become samples.
Status setProgram(int fd, int program);
/// The control page and `dataBytes` (a power of two of pages) of a writable ring. kDenied: the memory-lock limit.
Result<Mapping> mapRing(int fd, size_t dataBytes);

/// This program's process ids are the kernel's: false in a container with a process id namespace of its own.
bool seesKernelProcessIds();

/// Numbers of the processors that are running, from /sys/devices/system/cpu/online.
Result<std::vector<int>> onlineProcessors();
/// Parses "0-3,5"; a malformed text or one naming more than 8192 processors gives kInvalid.
Result<std::vector<int>> parseProcessorList(const std::string& text);
/// One number from /proc/sys/kernel/`name`, `fallback` when it cannot be read.
int64_t kernelSetting(const std::string& name, int64_t fallback);

/// What perf_event_open or the mapping of its ring was asked for; picks the advice in explain().
enum class Purpose {
    kOwnProcess, ///< a process of the caller, user mode only
    kKernelStacks, ///< the kernel's part of a process
    kWholeMachine, ///< processors, not threads
    kRing, ///< the ring's memory
};
/// The refusal as a sentence with the command that would allow it. `paranoid` is kernel.perf_event_paranoid.
Status explain(const Status& refusal, Purpose purpose, int64_t paranoid);

} // namespace vnt::perf
