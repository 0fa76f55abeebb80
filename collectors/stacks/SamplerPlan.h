#pragma once

#include <linux/perf_event.h>

#include "collectors/stacks/StackSampler.h"

namespace vnt {

/// Where events are opened. Processors: no race with new threads and no bias against short ones, needs privilege.
/// Threads: each thread with inheritance by the threads and processes it starts.
enum class Placement { kProcessors, kThreads };

/// What the kernel offers to us; found by trying.
struct KernelOffer {
    Placement placement = Placement::kProcessors;
    bool kernelMode = true; ///< samples while the kernel works are allowed
    bool buildIds = true; ///< mmap2 records may carry build ids (5.12)
    uint32_t maxFrames = 127; ///< sysctl perf_event_max_stack
    uint32_t dumpBytes = 0; ///< of the user stack, copied with each sample beside the registers; 0: neither
};

/// Sample layout that these attributes ask for, and that SampleAssembler decodes; with dumps also kDumpType.
inline constexpr uint64_t kSampleType =
    PERF_SAMPLE_IDENTIFIER | PERF_SAMPLE_TID | PERF_SAMPLE_TIME | PERF_SAMPLE_CALLCHAIN;
inline constexpr uint64_t kDumpType = PERF_SAMPLE_REGS_USER | PERF_SAMPLE_STACK_USER;
/// The general registers and the instruction pointer: bits of PERF_REG_X86_* (asm/perf_regs.h).
inline constexpr uint64_t kDumpedRegisters = 0xff01ff;
inline constexpr size_t kDumpedRegisterCount = 17;

/// True for pid 0: the kernel's own work on every processor.
bool samplesKernelOnly(const StackSamplerOptions& options);

/// kInvalid or kUnsupported for options that cannot be honoured.
Status checkOptions(const StackSamplerOptions& options);

/// The sampling event, disabled. The software clock: `intervalNs` of time on the processor a sample.
perf_event_attr samplingAttributes(const StackSamplerOptions& options, const KernelOffer& offer);
/// For all thread states: a sample whenever a thread leaves a processor, disabled. Needs kernel mode.
perf_event_attr switchAttributes(const StackSamplerOptions& options, const KernelOffer& offer);
/// True when threads that wait are to be recorded, which asks for more events.
bool recordsWaiting(const StackSamplerOptions& options);
/// The event that owns a processor's ring; carries process records when events are placed on processors. Enabled.
perf_event_attr ringAttributes(const StackSamplerOptions& options, const KernelOffer& offer, size_t ringBytes);
/// For 200 ms of full-depth samples, or 400 ms of those with dumps of `dumpBytes` or DumpSize::kUsual; a power of two
/// from 256 KiB to 4 MiB: a reader is woken at a quarter.
size_t ringBytes(const StackSamplerOptions& options, uint32_t dumpBytes);
/// To begin with: a ring's pages are found and cleared before the first sample can be taken. For 100 ms where rings can
/// be changed for larger ones later.
size_t firstRingBytes(const StackSamplerOptions& options, const KernelOffer& offer);
/// True when stacks are unwound from dumps, if the kernel gives them.
bool wantsDumps(const StackSamplerOptions& options);
/// Frames asked for: the options' number, what the kernel allows, at least one.
uint32_t framesAsked(const StackSamplerOptions& options, const KernelOffer& offer);

} // namespace vnt
