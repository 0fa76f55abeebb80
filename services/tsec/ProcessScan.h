#pragma once

#include <atomic>
#include <memory>

#include "services/tsec/ProcessLog.h"

namespace vnt {

/// One look at every running process, on a thread of its own that may hang: what /proc and the files behind it answer
/// is up to the programs that run, and a file system in user space may never answer. Then the scan is given up (its
/// thread stays until the answer comes) and the next one passes that process over. Owned by the recorder.
class ProcessScan {
public:
    enum class State { kRunning, kDone, kHanging };

    /// What ProcessLog::onScanEnd() is to be told once every event up to `doneNs` is: who is missing may only just have
    /// ended.
    struct Result {
        uint64_t beganNs = 0, doneNs = 0;
        std::set<pid_t> running;
        bool isWhole = false; ///< all processes were looked at
    };

    /// `startedNs` as in ProcessLog::onScanned(). `skip`: leave out this process, 0 for none.
    static std::unique_ptr<ProcessScan> start(std::shared_ptr<ProcessLog> log, uint64_t startedNs, pid_t skip);
    /// Gives the scan up; does not wait.
    ~ProcessScan();

    /// kHanging: no process was finished for some seconds.
    [[nodiscard]] State state();
    /// Of a scan that is done; once.
    [[nodiscard]] Result take();
    /// The process that a hanging scan is at.
    [[nodiscard]] pid_t current() const;
    /// Scans of this program that were given up and still hang.
    [[nodiscard]] static int hangingCount();

private:
    struct Shared;
    explicit ProcessScan(std::shared_ptr<Shared> shared) : _shared(std::move(shared)) { }
    const std::shared_ptr<Shared> _shared; // with the thread
};

} // namespace vnt
