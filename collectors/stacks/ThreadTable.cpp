#include "collectors/stacks/ThreadTable.h"

#include <fcntl.h>

#include <cstdio>

#include "platform/base/sys.h"

namespace vnt {
namespace {

// Every thread that ended was removed; past this, exit records must have been lost.
constexpr size_t kMostThreads = 65536;
/// Threads whose end is known and whose last records may still stand in another ring.
constexpr size_t kMostEnded = 4096;

std::string nameFromProc(uint32_t pid, uint32_t tid)
{
    const std::string process = "/proc/" + std::to_string(pid);
    auto name = sys::readFile(process + "/task/" + std::to_string(tid) + "/comm", 64);
    if (!name.ok())
        name = sys::readFile(process + "/comm", 64);
    if (!name.ok())
        return {};
    std::string text = name.take();
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

bool isKernelThread(uint32_t pid)
{
    constexpr unsigned long kKernelThread = 0x00200000; // PF_KTHREAD, in the flags of proc(5) stat
    auto text = sys::readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
    if (!text.ok())
        return false;
    const size_t nameEnd = text.value().rfind(')');
    unsigned long flags = 0;
    return nameEnd != std::string::npos
        && std::sscanf(text.value().c_str() + nameEnd, ") %*c %*d %*d %*d %*d %*d %lu", &flags) == 1
        && (flags & kKernelThread) != 0;
}

uint32_t flagsFromProc(uint32_t pid)
{
    auto fd = sys::openFile("/proc/" + std::to_string(pid) + "/exe", O_RDONLY);
    if (!fd.ok())
        return isKernelThread(pid) ? uint32_t{stacks::ThreadRecord::kKernelThread} : 0;
    unsigned char header[5] = {}; // elf(5): the fifth byte is the class, 1 for 32 bit
    if (!sys::readFully(fd.value().get(), header, sizeof header).ok())
        return 0;
    return header[4] == 1 ? uint32_t{stacks::ThreadRecord::k32Bit} : 0;
}

} // namespace

uint32_t ThreadTable::numberOf(uint32_t pid, uint32_t tid, stacks::StackDefinitions& writer)
{
    if (!_latest || _latest->record.tid != tid || _latest->record.pid != pid)
        _latest = &find(pid, tid);
    Thread& thread = *_latest;
    if (thread.generation == _generation && !thread.changed)
        return thread.number;
    if (thread.generation != _generation)
        thread.number = _nextNumber++;
    thread.generation = _generation;
    thread.changed = false;
    writer.addThread(thread.number, thread.record);
    return thread.number;
}

ThreadTable::Thread& ThreadTable::find(uint32_t pid, uint32_t tid)
{
    auto found = _threads.find(tid);
    if (found != _threads.end() && found->second.record.pid == pid)
        return found->second;
    if (_threads.size() >= kMostThreads) {
        _threads.clear();
        _processFlags.clear();
    }
    Thread& thread = _threads[tid];
    thread = Thread();
    thread.record = {pid, tid, flagsOf(pid), nameFromProc(pid, tid)};
    return thread;
}

uint32_t ThreadTable::flagsOf(uint32_t pid)
{
    const auto found = _processFlags.find(pid);
    if (found != _processFlags.end())
        return found->second;
    return _processFlags[pid] = flagsFromProc(pid);
}

void ThreadTable::onName(uint32_t pid, uint32_t tid, std::string_view name)
{
    const auto found = _threads.find(tid);
    if (found == _threads.end() || found->second.record.pid != pid) {
        // Kept for its first record: a thread that waits until it ends has one only when /proc no longer knows it.
        if (_threads.size() >= kMostThreads)
            return;
        _latest = nullptr;
        _threads[tid] = Thread{{pid, tid, flagsOf(pid), std::string(name)}, 0, 0, false};
        return;
    }
    if (found->second.record.name == name)
        return;
    found->second.record.name = name;
    found->second.changed = true;
}

void ThreadTable::onExec(uint32_t pid, std::string_view name)
{
    _latest = nullptr;
    _processFlags.erase(pid);
    // Threads that the exec ended had exit records. The one left is a new thread to a reader: its earlier samples
    // keep the name they were taken under.
    _threads.erase(pid);
    Thread& thread = _threads[pid];
    thread.record = {pid, pid, flagsOf(pid), std::string(name)};
}

void ThreadTable::onFork(uint32_t pid, uint32_t tid, uint32_t parentPid, uint32_t parentTid)
{
    // The child's own first records may stand in another processor's ring and have come before: its name stays.
    const auto known = _threads.find(tid);
    if (known != _threads.end() && known->second.record.pid == pid && !known->second.ended)
        return;
    const auto parent = _threads.find(parentTid);
    if (parent == _threads.end() || parent->second.record.pid != parentPid)
        return;
    stacks::ThreadRecord record = parent->second.record;
    record.pid = pid;
    record.tid = tid;
    if (_threads.size() >= kMostThreads)
        return;
    _latest = nullptr;
    _threads[tid] = Thread{std::move(record), 0, 0, false};
}

void ThreadTable::onExit(uint32_t tid)
{
    const auto found = _threads.find(tid);
    if (found == _threads.end() || found->second.ended)
        return;
    found->second.ended = true;
    _ended.push_back(tid);
    if (_ended.size() <= kMostEnded)
        return;
    const auto oldest = _threads.find(_ended.front());
    _ended.pop_front();
    if (oldest == _threads.end() || !oldest->second.ended)
        return; // the number went to a new thread
    _latest = nullptr;
    _processFlags.erase(oldest->first);
    _threads.erase(oldest);
}

void ThreadTable::beginGeneration()
{
    ++_generation;
    _nextNumber = 0;
}

} // namespace vnt
