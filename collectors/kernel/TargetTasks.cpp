#include "collectors/kernel/TargetTasks.h"

#include "collectors/common/family.h"

namespace vnt {
namespace {

constexpr uint32_t kMaxTid = 1u << 22; // PID_MAX_LIMIT, linux/threads.h
constexpr size_t kMaxProcesses = 65536; // past it, exit records must have been lost

} // namespace

void TargetTasks::add(uint32_t tid)
{
    _isEverything = false;
    if (tid >= kMaxTid)
        return;
    if (tid / 64 >= _wanted.size())
        _wanted.resize(tid / 64 + 1);
    _wanted[tid / 64] |= uint64_t{1} << (tid % 64);
}

void TargetTasks::onFork(uint32_t pid, uint32_t tid, uint32_t parentTid)
{
    if (_processes.size() >= kMaxProcesses)
        _processes.clear();
    _processes[tid] = pid;
    if (!_isEverything && contains(parentTid))
        add(tid);
}

void TargetTasks::forgetEnded()
{
    for (const uint32_t tid : _ended) {
        _processes.erase(tid);
        if (tid / 64 < _wanted.size())
            _wanted[tid / 64] &= ~(uint64_t{1} << (tid % 64));
    }
    _ended = std::move(_exiting);
    _exiting.clear();
}

uint32_t TargetTasks::processOf(uint32_t tid) const
{
    const auto found = _processes.find(tid);
    return found == _processes.end() ? tid : found->second;
}

std::vector<TaskIds> threadsOfFamily(pid_t pid)
{
    std::vector<TaskIds> threads;
    for (const pid_t process : processesOfFamily(pid)) {
        for (const pid_t tid : threadsOfProcess(process))
            threads.push_back({static_cast<uint32_t>(process), static_cast<uint32_t>(tid)});
    }
    return threads;
}

} // namespace vnt
