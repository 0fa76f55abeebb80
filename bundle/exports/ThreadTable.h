#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vnt {

struct ExportProcess {
    uint32_t pid = 0;
    std::string name; ///< valid UTF-8, never empty
    std::string executable; ///< path; may be empty
    bool isNamed = false; ///< by a signature; else after a thread, or by its number
};

struct ExportThread {
    uint32_t pid = 0;
    uint32_t tid = 0;
    uint32_t process = 0; ///< into processes()
    std::string name; ///< the latest; valid UTF-8, never empty
    std::string rawName; ///< as recorded
};

/// Processes and threads of a recording, numbered in the order they first came. One thread.
class ThreadTable {
public:
    static constexpr uint32_t kMaxThreads = 1u << 20; ///< further ones count as the last; in forged recordings only

    uint32_t addProcess(uint32_t pid, std::string_view name, std::string_view executable);
    /// The process's number; one that no signature named has its number as name until a thread tells.
    uint32_t addProcess(uint32_t pid) { return addProcess(pid, {}, {}); }
    uint32_t addThread(uint32_t pid, uint32_t tid, std::string_view name);

    [[nodiscard]] const std::vector<ExportProcess>& processes() const { return _processes; }
    [[nodiscard]] const std::vector<ExportThread>& threads() const { return _threads; }
    [[nodiscard]] const ExportProcess& processOf(const ExportThread& thread) const
    {
        return _processes[thread.process];
    }

private:
    std::vector<ExportProcess> _processes;
    std::vector<ExportThread> _threads;
    std::unordered_map<uint32_t, uint32_t> _processNumbers; // by pid
    std::unordered_map<uint64_t, uint32_t> _threadNumbers; // pid << 32 | tid
};

} // namespace vnt
