#pragma once

#include <sys/types.h>

#include <deque>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "platform/base/Mutex.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// What one look into /proc told of a process.
struct ScannedProcess {
    pid_t pid = 0;
    pid_t parent = 0;
    std::string name;
    std::string executable;
    uint64_t lookedNs = 0; ///< when the look began: what happened to the process since is newer
    std::vector<MappingEvent> images; ///< timeNs is 0
};

/// Every process since the first watch: fed with what the kernel reports, asked for signatures. Bounded: of the ended
/// ones the oldest go first, and are counted. Events must come in the order of their times, as far as possible; one
/// that contradicts what is known is believed. Knows nothing of the kernel. Any thread.
class ProcessLog {
public:
    struct Limits {
        size_t endedProcesses = 65536; ///< twice the pids that most machines have
        size_t images = 1u << 20; ///< of all processes together; about 100 bytes each
        size_t imagesPerProcess = 4096; ///< beyond, a program maps code without end
        size_t imagesPerAnswer = 200'000; ///< an answer of some 30 MB; clients read at most 64
    };
    ProcessLog() : ProcessLog(Limits()) { }
    explicit ProcessLog(const Limits& limits) : _limits(limits) { }

    void onFork(uint64_t timeNs, pid_t parent, pid_t child);
    /// `name` is the kernel's, at most 15 bytes.
    void onExec(uint64_t timeNs, pid_t pid, const std::string& name);
    void onMapping(const MappingEvent& event);
    void onExit(uint64_t timeNs, pid_t pid);
    /// `count` events were lost.
    void onLost(uint64_t count);

    /// A running process as a scan found it; `startedNs` is what to believe of one that was not known: 0 in the first
    /// scan, which finds what ran before.
    void onScanned(uint64_t startedNs, ScannedProcess scanned);
    /// A scan that began at `beganNs` found these processes running: others that began before have ended unseen.
    void onScanEnd(uint64_t beganNs, const std::set<pid_t>& running);

    /// The signatures of the processes that started or ended at or after `sinceNs`, as the dictionary of
    /// records/Signature.h. About 10 microseconds a process, without the lock.
    [[nodiscard]] Ref<Dictionary> signaturesSince(uint64_t sinceNs) const;

    [[nodiscard]] size_t imagesForTesting() const;

private:
    /// A file that is mapped into processes; shared by them.
    struct File {
        std::string path, buildId;
    };
    struct Image {
        uint64_t start = 0, sizeBytes = 0, fileOffset = 0, timeNs = 0;
        std::shared_ptr<const File> file; // null: a new address space began at timeNs
    };
    struct Process {
        pid_t pid = 0, parent = 0;
        std::string name, executable;
        uint64_t startedNs = 0, endedNs = 0, execNs = 0;
        uint64_t scannedNs = 0; // when a scan last saw it
        size_t inherited = 0; // the first images, which it has from its parent
        std::vector<Image> images;
    };
    using ProcessPtr = std::shared_ptr<Process>;

    ProcessPtr& ensure(uint64_t timeNs, pid_t pid) VNT_REQUIRES(_lock);
    void end(uint64_t timeNs, pid_t pid) VNT_REQUIRES(_lock);
    void addImage(Process& process, const MappingEvent& event) VNT_REQUIRES(_lock);
    void dropImages(Process& process, size_t count) VNT_REQUIRES(_lock);
    void makeRoom() VNT_REQUIRES(_lock);
    std::shared_ptr<const File> fileOf(const std::string& path, const std::string& buildId) VNT_REQUIRES(_lock);
    static Ref<Dictionary> encode(const Process& process);

    const Limits _limits;
    mutable Mutex _lock;
    std::unordered_map<pid_t, ProcessPtr> _running VNT_GUARDED_BY(_lock);
    std::deque<ProcessPtr> _ended VNT_GUARDED_BY(_lock); // by their end; never changed any more
    std::unordered_map<std::string, std::shared_ptr<const File>> _files VNT_GUARDED_BY(_lock);
    size_t _images VNT_GUARDED_BY(_lock) = 0;
    uint64_t _dropped VNT_GUARDED_BY(_lock) = 0;
    uint64_t _lost VNT_GUARDED_BY(_lock) = 0;
};

} // namespace vnt
