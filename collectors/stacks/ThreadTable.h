#pragma once

#include <sys/types.h>

#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "records/StackDefinitions.h"

namespace vnt {

/// The threads seen, by thread id, and their numbers in the current generation. Names come from the kernel's records,
/// and from /proc for threads that are older than the recording. One thread.
class ThreadTable {
public:
    /// The number of a thread, defining it first if the generation has not heard of it or its name changed. A thread
    /// known costs one look-up; a new one up to three small reads in /proc. Before the call there must be room().
    uint32_t numberOf(uint32_t pid, uint32_t tid, stacks::StackDefinitions& writer);

    /// Learns a thread's name and kind of code while it certainly is there.
    void learn(uint32_t pid, uint32_t tid) { (void)find(pid, tid); }
    /// ThreadRecord::flags of the thread that the last numberOf() was about.
    [[nodiscard]] uint32_t latestFlags() const { return _latest ? _latest->record.flags : 0; }

    void onName(uint32_t pid, uint32_t tid, std::string_view name);
    /// A new program: name, kind of code and all other threads of the process are gone.
    void onExec(uint32_t pid, std::string_view name);
    void onFork(uint32_t pid, uint32_t tid, uint32_t parentPid, uint32_t parentTid);
    void onExit(uint32_t tid);

    /// False: a new generation is due.
    [[nodiscard]] bool room() const { return _nextNumber < stacks::kMaxThreads; }
    void beginGeneration();

private:
    struct Thread {
        stacks::ThreadRecord record;
        uint32_t number = 0;
        uint32_t generation = 0; ///< 0: never defined
        bool changed = false;
        bool ended = false; // kept a while: rings of other processors may still hold records of it
    };
    Thread& find(uint32_t pid, uint32_t tid);
    uint32_t flagsOf(uint32_t pid);

    std::unordered_map<uint32_t, Thread> _threads;
    std::deque<uint32_t> _ended; // oldest first
    std::unordered_map<uint32_t, uint32_t> _processFlags; ///< by pid
    Thread* _latest = nullptr; ///< into _threads; the thread of the last sample, most often also of the next
    uint32_t _generation = 1;
    uint32_t _nextNumber = 0;
};

} // namespace vnt
