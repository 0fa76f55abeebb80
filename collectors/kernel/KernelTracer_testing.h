#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "collectors/kernel/EventTable.h"
#include "collectors/kernel/KernelTracer.h"
#include "platform/base/Mutex.h"
#include "records/TraceRecordReader.h"

/// What tests of the tracer record with, and what they record.
namespace vnt {

/// Everything a recording told, counted. Written by the reader thread, read after stop() or under the lock.
class TraceRecording : public RecordSink, public trace::TraceRecordHandler, public ProcessObserver {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        MutexLock lock(_mutex);
        if (refuses) {
            ++refused;
            _changed.notifyAll();
            return Status(Code::kTimedOut, "no room");
        }
        const Status status = _reader.read(message, *this);
        EXPECT_TRUE(status.ok()) << status.message();
        bytes += message.size();
        _changed.notifyAll();
        return {};
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { problems += text; }

    void onGeneration(const std::shared_ptr<const trace::Definitions>& definitions) override
    {
        _definitions = definitions;
        ++generations;
    }
    void onEvent(const trace::EventRecord& event) override
    {
        const trace::TypeRecord& type = _definitions->type(event.type);
        const stacks::ThreadRecord& thread = _definitions->thread(event.thread);
        ++events;
        if (thread.flags & trace::kOutsideTarget) {
            ++outside[type.name];
            return;
        }
        ++byName[type.name];
        ++byPid[thread.pid];
        tids.insert(thread.tid);
        names.insert(thread.name);
        firstNs = firstNs == 0 ? event.timeNs : std::min(firstNs, event.timeNs);
        lastNs = std::max(lastNs, event.timeNs);
        if (type.kind == trace::EventKind::kCallEnter)
            ++calls[type.label];
        if (type.kind == trace::EventKind::kCallExit && type.label == "getppid")
            result = event.values[0];
        if (type.kind == trace::EventKind::kSwitch && (event.values[0] & 0xff) != 0)
            ++voluntary;
        if (type.kind == trace::EventKind::kExec)
            programs.insert(std::string(event.text));
        countFrames(event.stack);
    }
    void onOrphan(uint64_t) override { ADD_FAILURE() << "orphan"; }
    void onLost(uint64_t, trace::LostCause cause, uint64_t newly, uint64_t) override { lost[cause] += newly; }
    void onMissingMessages(uint64_t count) override { missing += count; }

    void onMapping(const MappingEvent& event) override { mappings.insert(event.path); }
    void onExec(uint64_t, pid_t, const std::string&) override { }
    void onFork(uint64_t, pid_t, pid_t child) override { forks.push_back(child); }
    void onFork(uint64_t, uint32_t, uint32_t) override { }
    void onExit(uint64_t, pid_t) override { }
    void onKernelAddresses(std::span<const uint64_t> addresses) override { kernelAddresses += addresses.size(); }

    bool waitForEvents(size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        MutexLock lock(_mutex);
        while (events < count) {
            if (!_changed.waitUntil(lock, deadline))
                return false;
        }
        return true;
    }
    /// Until that many messages were refused.
    bool waitForRefusals(size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        MutexLock lock(_mutex);
        while (refused < count) {
            if (!_changed.waitUntil(lock, deadline))
                return false;
        }
        return true;
    }
    size_t eventsSoFar()
    {
        MutexLock lock(_mutex);
        return events;
    }
    void setRefuses(bool value)
    {
        MutexLock lock(_mutex);
        refuses = value;
    }
    /// All but what a nested event cost, which may be another process's.
    uint64_t lostOwn()
    {
        uint64_t sum = 0;
        for (const auto& [cause, count] : lost)
            sum += cause == trace::LostCause::kRecursion ? 0 : count;
        return sum;
    }

    std::map<std::string, size_t> byName, outside, calls;
    std::map<uint32_t, size_t> byPid;
    std::map<trace::LostCause, uint64_t> lost;
    std::set<uint32_t> tids;
    std::set<std::string> names, programs, mappings;
    std::vector<pid_t> forks;
    std::string problems;
    size_t events = 0, generations = 0, voluntary = 0, kernelFrames = 0, userFrames = 0, kernelAddresses = 0, bytes = 0,
           refused = 0;
    uint64_t result = 0, firstNs = 0, lastNs = 0, missing = 0;
    bool refuses = false;

private:
    void countFrames(uint32_t stack)
    {
        _definitions->frames(stack, _frames);
        for (const uint64_t frame : _frames)
            ++(frame >> 63 ? kernelFrames : userFrames);
    }

    Mutex _mutex;
    Condition _changed;
    trace::TraceRecordReader _reader;
    std::shared_ptr<const trace::Definitions> _definitions;
    std::vector<uint64_t> _frames;
};

inline KernelTracerOptions traceOptions(pid_t pid, KernelTracerOptions::Path path)
{
    KernelTracerOptions options;
    options.pid = pid;
    options.path = path;
    options.userStacks = options.kernelStacks = false;
    for (const EventClass& eventClass : eventClasses())
        options.classes.push_back(eventClass.code);
    return options;
}

/// What kernelwork says of itself: the number behind `name`.
inline long ownCount(const std::string& line, const std::string& name)
{
    const size_t at = line.find(name + " ");
    return at == std::string::npos ? -1 : std::atol(line.c_str() + at + name.size() + 1);
}

} // namespace vnt
