#include "bundle/exports/ThreadTable.h"

#include "bundle/exports/utf8.h"

namespace vnt {

uint32_t ThreadTable::addProcess(uint32_t pid, std::string_view name, std::string_view executable)
{
    const auto [known, isNew] = _processNumbers.try_emplace(pid, static_cast<uint32_t>(_processes.size()));
    if (isNew)
        _processes.push_back({pid, "process " + std::to_string(pid), {}, false});
    ExportProcess& process = _processes[known->second];
    if (!name.empty() && !process.isNamed) {
        process.name = validUtf8(name);
        process.executable = validUtf8(executable);
        process.isNamed = true;
    }
    return known->second;
}

uint32_t ThreadTable::addThread(uint32_t pid, uint32_t tid, std::string_view name)
{
    const auto [known, isNew] =
        _threadNumbers.try_emplace(uint64_t{pid} << 32 | tid, static_cast<uint32_t>(_threads.size()));
    if (isNew) {
        if (_threads.size() >= kMaxThreads) {
            _threadNumbers.erase(known);
            return static_cast<uint32_t>(_threads.size() - 1);
        }
        _threads.push_back({pid, tid, addProcess(pid), "thread " + std::to_string(tid), {}});
    }
    ExportThread& thread = _threads[known->second];
    if (thread.rawName != name) {
        thread.rawName = name;
        thread.name = name.empty() ? "thread " + std::to_string(tid) : validUtf8(name);
        ExportProcess& process = _processes[thread.process];
        if (pid == tid && !process.isNamed && !name.empty())
            process.name = thread.name;
    }
    return known->second;
}

} // namespace vnt
