#pragma once

#include <poll.h>

#include <optional>
#include <thread>

#include "collectors/common/RingReader.h"
#include "platform/base/UniqueFd.h"
#include "services/tsec/ProcessScan.h"
#include "services/tsec/TaskRecords.h"

namespace vnt {

/// Fills a ProcessLog from the kernel: one event that counts nothing on each processor tells of every fork, exec,
/// mapping and exit of the machine, with build ids, so that processes that live for a moment are whole. Its thread
/// wakes only when a quarter of a ring is full; about 1.5 KB and 15 microseconds of it for a short-lived process. What
/// ran before comes from one scan of /proc, and from another one whenever events were lost. Any thread.
class ProcessRecorder {
public:
    static constexpr size_t kDefaultRingBytes = 1u << 20;

    /// From the return on, nothing is missed. `ringBytes`: a power of two of pages for each processor. Errors say what
    /// would allow it.
    static Result<std::shared_ptr<ProcessRecorder>> start(size_t ringBytes = kDefaultRingBytes);
    ~ProcessRecorder();
    ProcessRecorder(const ProcessRecorder&) = delete;
    ProcessRecorder& operator=(const ProcessRecorder&) = delete;

    /// Returns when the log holds all that happened before the call, and the first scan is done: after 20 to 40
    /// milliseconds. False when that took too many seconds; the log then counts a loss.
    bool catchUp();
    [[nodiscard]] const ProcessLog& log() const { return *_log; }

private:
    struct Ring {
        UniqueFd event;
        RingReader reader;
    };
    ProcessRecorder() : _log(std::make_shared<ProcessLog>()) { }
    Status open(size_t ringBytes);
    Status openRing(int cpu, size_t ringBytes);
    void run();
    void waitForWork();
    void drain(uint64_t settledNs);
    void tendScan();
    void startScan(uint64_t startedNs, pid_t skip);

    const std::shared_ptr<ProcessLog> _log; // with the scans
    UniqueFd _wake;
    std::thread _thread;

    // The thread's own.
    std::vector<Ring> _rings;
    std::vector<TaskRecord> _held; // too young to be in order yet
    std::unique_ptr<ProcessScan> _scan;
    std::optional<ProcessScan::Result> _scanned; // to be told when the events of its time are
    bool _scanWanted = false, _firstScanDone = false;
    bool _isAwaited = false; // somebody waits in catchUp()
    uint64_t _lastScanNs = 0;

    Mutex _lock;
    Condition _changed;
    std::deque<uint64_t> _askedNs VNT_GUARDED_BY(_lock); // catchUp() calls that wait: when they were made
    uint64_t _served VNT_GUARDED_BY(_lock) = 0; // those that need not
    bool _stopped VNT_GUARDED_BY(_lock) = false;
};

} // namespace vnt
