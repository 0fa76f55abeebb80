#pragma once

#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "platform/base/Mutex.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// Symbolication signatures of the processes that a session asks about. A process once asked for keeps its signature
/// after its end; mappings that a collector sees appear are added with their time. Owned by the worker; any thread.
class SignatureStore final : public ProcessObserver {
public:
    /// The signature as it stands now, or null for a pid that is not known and does not run. Pid 0 is the kernel.
    [[nodiscard]] Ref<Object> signatureOf(pid_t pid);
    /// pid -> signature of the processes that were known and have ended.
    [[nodiscard]] Ref<Dictionary> expiredSignatures();

    /// The signature of `pid` carries those of its descendants from now on, as far as a collector sees them begin: who
    /// records one process asks for that one only.
    void keepFamilyOf(pid_t pid);

    void onMapping(const MappingEvent& event) override;
    void onExec(uint64_t timeNs, pid_t pid, const std::string& name) override;
    void onFork(uint64_t timeNs, pid_t parent, pid_t child) override;
    void onExit(uint64_t timeNs, pid_t pid) override;
    void onKernelAddresses(std::span<const uint64_t> addresses) override;

private:
    struct Image {
        uint64_t start = 0;
        uint64_t sizeBytes = 0;
        uint64_t fileOffset = 0;
        uint64_t timeNs = 0; // 0: from the start
        bool exec = false; // a new address space began at timeNs; nothing else is set
        std::string path;
        std::string buildId;
    };
    struct Process {
        std::string name;
        std::string executable;
        uint64_t startTicks = 0;
        bool is64Bit = true;
        bool ended = false;
        pid_t parent = 0; // that was seen to make it
        std::string perfMap; // text of what its just-in-time compiler wrote; empty for most
        std::vector<Image> images;
        Ref<Object> encoded; // what signatureOf() last answered, while nothing has changed
    };

    /// Reads the process again and adds what is new; false when it does not run (any more).
    bool refresh(pid_t pid, Process& process) VNT_REQUIRES(_lock);
    Image* addImage(Process& process, Image image) VNT_REQUIRES(_lock);
    /// Of what is mapped there, also when the file was removed or lies in a container.
    [[nodiscard]] std::string buildIdOf(pid_t pid, const Image& image) VNT_REQUIRES(_lock);
    void readPerfMap(pid_t pid, Process& process) VNT_REQUIRES(_lock);
    [[nodiscard]] Ref<Object> encoded(pid_t pid, Process& process) VNT_REQUIRES(_lock);
    [[nodiscard]] Ref<Object> withFamily(pid_t pid, const Ref<Object>& own) VNT_REQUIRES(_lock);
    [[nodiscard]] bool descends(pid_t pid, pid_t ancestor) const VNT_REQUIRES(_lock);
    [[nodiscard]] static Ref<Object> encode(pid_t pid, const Process& process);
    [[nodiscard]] Ref<Object> kernelSignature();

    Mutex _lock;
    std::map<pid_t, Process> _processes VNT_GUARDED_BY(_lock);
    std::unordered_set<pid_t> _families VNT_GUARDED_BY(_lock); // of keepFamilyOf()
    std::unordered_set<uint64_t> _kernelAddresses VNT_GUARDED_BY(_lock);
    std::unordered_map<std::string, std::string> _buildIds VNT_GUARDED_BY(_lock); // device:inode:mtime -> build id
    Ref<Object> _kernel VNT_GUARDED_BY(_lock);
    size_t _kernelAddressesEncoded VNT_GUARDED_BY(_lock) = 0;
};

} // namespace vnt
