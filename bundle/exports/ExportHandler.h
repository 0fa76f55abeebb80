#pragma once

#include <string_view>

#include "bundle/TraceReader.h"
#include "records/CensusRecordReader.h"
#include "records/HeapRecords.h"
#include "records/OrphanRecords.h"

namespace vnt {

/// One sampled stretch of a thread's time that ends at `timeNs`.
struct ExportSample {
    uint64_t timeNs = 0;
    uint32_t thread = 0; ///< these are numbers in the source's tables
    uint32_t stack = 0; ///< never 0
    uint64_t weightNs = 0; ///< processor time, or how long it waited
    bool isBlocked = false; ///< the thread waited
};

struct ExportKernelEvent {
    const TraceEvent& event;
    uint32_t thread = 0; ///< what was running
    uint32_t stack = 0; ///< 0: not recorded
};

struct ExportAllocation {
    uint64_t timeNs = 0;
    uint32_t process = 0;
    uint32_t stack = 0; ///< never 0
    uint64_t sizeBytes = 0;
    uint64_t address = 0;
    heap::Function function = heap::Function::kMalloc;
};

/// The end of a block whose allocation was told.
struct ExportFree {
    uint64_t timeNs = 0;
    ExportAllocation allocation;
};

struct ExportFault {
    uint64_t timeNs = 0;
    uint32_t process = 0;
    heap::Fault fault = heap::Fault::kSecondFree;
    uint64_t address = 0;
    uint64_t byte = 0;
    uint32_t allocateStack = 0; ///< 0: not known
    uint32_t freeStack = 0;
    uint32_t faultStack = 0;
};

/// A call that changed an object's count of references, or might have.
struct ExportCount {
    uint64_t timeNs = 0;
    uint32_t process = 0;
    uint32_t thread = 0; ///< id
    heap::Counting counting = heap::Counting::kRef;
    uint64_t object = 0;
    uint64_t before = 0; ///< its count; 0: not known
    uint32_t stack = 0; ///< never 0
};

/// A search for leaks; its leaks are told next.
struct ExportSearch {
    uint64_t timeNs = 0;
    uint32_t process = 0;
    const orphans::SearchRecord& record;
};

struct ExportLeak {
    uint64_t timeNs = 0; ///< of the search
    uint32_t process = 0;
    uint32_t stack = 0; ///< of the allocation; never 0
    const orphans::LeakRecord& record;
};

/// Told by ExportSource what a bundle holds: instrument by instrument in the catalogue's order, each in the order of
/// its recording. Kernel events and allocations come in the order of time, samples only nearly. Times are on the clock
/// of the recording. References are valid during the call. Every function does nothing by default.
class ExportHandler {
public:
    virtual ~ExportHandler() = default;
    virtual void onSample(const ExportSample& /*sample*/) { }
    virtual void onKernelEvent(const ExportKernelEvent& /*event*/) { }
    virtual void onAllocation(const ExportAllocation& /*allocation*/) { }
    virtual void onFree(const ExportFree& /*free*/) { }
    virtual void onFault(const ExportFault& /*fault*/) { }
    virtual void onCount(const ExportCount& /*count*/) { }
    virtual void onSearch(const ExportSearch& /*search*/) { }
    virtual void onLeak(const ExportLeak& /*leak*/) { }
    /// A search that did not come about; why.
    virtual void onNotSearched(uint64_t /*timeNs*/, uint32_t /*process*/, std::string_view /*reason*/) { }
    virtual void onSweep(uint64_t /*timeNs*/, const census::SweepRecord& /*sweep*/) { }
    /// Of the sweep told before it.
    virtual void onUsage(uint64_t /*timeNs*/, const census::ProcessRecord& /*process*/, const census::Usage& /*usage*/)
    {
    }
    virtual void onProcessStarted(uint64_t /*timeNs*/, const census::ProcessRecord& /*process*/) { }
    /// `status` as of wait(2); -1: not known.
    virtual void onProcessEnded(uint64_t /*timeNs*/, const census::ProcessRecord& /*process*/, int64_t /*status*/) { }
    virtual void onProcessRenamed(uint64_t /*timeNs*/, const census::ProcessRecord& /*process*/) { }
    /// `count` records are missing here; `what` says of which instrument and why, as "stacksampler: ring full".
    virtual void onLost(uint64_t /*timeNs*/, std::string_view /*what*/, uint64_t /*count*/) { }
};

} // namespace vnt
