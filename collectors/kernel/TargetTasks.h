#pragma once

#include <sys/types.h>

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace vnt {

/// The threads whose events are wanted, and the processes of all threads seen. One thread. contains() costs a
/// nanosecond.
class TargetTasks {
public:
    /// Everything is wanted until a thread is added.
    void add(uint32_t tid);
    [[nodiscard]] bool isEverything() const { return _isEverything; }
    [[nodiscard]] bool contains(uint32_t tid) const
    {
        return _isEverything || (tid / 64 < _wanted.size() && (_wanted[tid / 64] >> (tid % 64) & 1) != 0);
    }
    /// A new task: wanted when the one that made it is.
    void onFork(uint32_t pid, uint32_t tid, uint32_t parentTid);
    /// The task is at its end; its last events may still come.
    void onExit(uint32_t tid) { _exiting.push_back(tid); }
    /// All rings were read once more: tasks that had ended before the last such call are forgotten.
    void forgetEnded();
    /// The process of a thread; the thread's own number when it is not known.
    [[nodiscard]] uint32_t processOf(uint32_t tid) const;

private:
    bool _isEverything = true;
    std::vector<uint64_t> _wanted; ///< a bit for each thread id; 512 KiB at the largest pid_max
    std::unordered_map<uint32_t, uint32_t> _processes;
    std::vector<uint32_t> _exiting;
    std::vector<uint32_t> _ended;
};

struct TaskIds {
    uint32_t pid = 0;
    uint32_t tid = 0;
};
/// Threads of `pid` and of all processes that descend from it, from /proc. Empty: there is no such process.
std::vector<TaskIds> threadsOfFamily(pid_t pid);

} // namespace vnt
