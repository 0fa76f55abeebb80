#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"
#include "records/StackRecordReader.h"

/// What tests of the sampler record with, and what they record.
namespace vnt {

/// Everything a recording told, by function of the target. Written by the reader thread, read after stop() or under the
/// lock.
class Recording : public RecordSink, public stacks::StackRecordHandler, public ProcessObserver {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        MutexLock lock(_mutex);
        EXPECT_TRUE(_reader.read(message, *this).ok());
        _changed.notifyAll();
        return {};
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { problems += text; }

    void onSession(const stacks::SessionRecord& session) override { flags = session.flags; }
    void onSample(const stacks::SampleRecord& sample) override
    {
        if (sample.blockedNs) {
            blockedNs[sample.thread->name] += sample.blockedNs;
            std::vector<uint64_t> chain;
            _reader.frames(sample.stack, chain);
            blockedInside += std::any_of(chain.begin(), chain.end(), [this](uint64_t address) {
                return address >= blockedBegin && address < blockedEnd;
            });
            return;
        }
        ++samples;
        ++byPid[sample.thread->pid];
        tids.insert(sample.thread->tid);
        names.insert(sample.thread->name);
        std::vector<uint64_t> frames;
        _reader.frames(sample.stack, frames);
        if (!frames.empty() && frames[0] >> 63)
            ++inKernel;
        for (const uint64_t address : frames) {
            const auto next = _functions.upper_bound(address);
            if (next != _functions.begin() && next != _functions.end())
                ++byFunction[std::prev(next)->second];
        }
    }
    void onOrphan(uint64_t) override { ADD_FAILURE() << "orphan"; }
    void onLost(uint64_t, stacks::LostCause, uint64_t newly, uint64_t) override { lost += newly; }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t written) override
    {
        cost = cpuNs;
        writtenByCost = written;
    }
    void onExit(uint64_t, uint32_t pid) override { exits.insert(pid); }

    void onMapping(const MappingEvent& event) override { mappings.push_back(event); }
    void onExec(uint64_t, pid_t pid, const std::string& name) override { execs.emplace_back(pid, name); }
    void onFork(uint64_t, pid_t, pid_t child) override { forks.push_back(child); }
    void onExit(uint64_t, pid_t) override { }
    void onKernelAddresses(std::span<const uint64_t> addresses) override { kernelAddresses += addresses.size(); }

    void setFunctions(std::map<uint64_t, std::string> functions)
    {
        MutexLock lock(_mutex);
        _functions = std::move(functions);
    }
    size_t samplesSoFar()
    {
        MutexLock lock(_mutex);
        return samples;
    }
    bool waitForSamples(size_t count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        MutexLock lock(_mutex);
        while (samples < count) {
            if (!_changed.waitUntil(lock, deadline))
                return false;
        }
        return true;
    }
    size_t share(const char* name) const
    {
        const auto found = byFunction.find(name);
        return found == byFunction.end() || samples == 0 ? 0 : 100 * found->second / samples;
    }

    std::map<std::string, uint64_t> blockedNs; ///< by thread name
    size_t blockedInside = 0; ///< waits with a frame in the range
    std::atomic<uint64_t> blockedBegin{0}, blockedEnd{0};
    std::map<std::string, size_t> byFunction;
    std::map<uint32_t, size_t> byPid;
    std::set<uint32_t> tids, exits;
    std::set<std::string> names;
    std::vector<MappingEvent> mappings;
    std::vector<std::pair<pid_t, std::string>> execs;
    std::vector<pid_t> forks;
    std::string problems;
    size_t samples = 0, inKernel = 0, kernelAddresses = 0;
    uint64_t lost = 0, cost = 0, writtenByCost = 0;
    uint32_t flags = 0;

private:
    Mutex _mutex;
    Condition _changed;
    stacks::StackRecordReader _reader;
    std::map<uint64_t, std::string> _functions; ///< by address; an empty name ends the last one
};

/// The target program, killed and reaped at the latest with this object.
class Target {
public:
    enum class Begin { kRunning, kStopped };
    Target(Begin begin, const char* milliseconds, const char* mode = "", const char* program = "/hotsplit")
    {
        auto pipe = sys::makePipe().take();
        _pid = ::fork();
        if (_pid == 0) {
            ::dup2(pipe.second.get(), 1);
            if (begin == Begin::kStopped)
                ::raise(SIGSTOP);
            ::execl((VNT_TARGETS + std::string(program)).c_str(), program + 1, milliseconds, mode, nullptr);
            ::_exit(127);
        }
        int status = 0;
        if (begin == Begin::kStopped)
            ::waitpid(_pid, &status, WUNTRACED);
        _output = std::move(pipe.first);
    }
    ~Target() { wait(SIGKILL); }
    Target(const Target&) = delete;
    Target& operator=(const Target&) = delete;

    [[nodiscard]] pid_t pid() const { return _pid; }
    void resume() { ::kill(_pid, SIGCONT); }
    std::string line()
    {
        std::string text;
        char byte = 0;
        while (byte != '\n' && sys::readFully(_output.get(), &byte, 1).ok())
            text.push_back(byte);
        return text;
    }
    /// Waits for the line with the functions' addresses.
    std::map<uint64_t, std::string> functions()
    {
        const std::string line = this->line();
        static constexpr const char* kNames[] = {"hot_60", "hot_30", "hot_10", "hot_later", "hot_short", "hot_child"};
        std::map<uint64_t, std::string> result;
        size_t at = line.find(' ');
        for (const char* name : kNames) {
            if (at == std::string::npos)
                return {};
            result[std::stoull(line.substr(at + 1), nullptr, 16)] = name;
            at = line.find(' ', at + 1);
        }
        if (!result.empty())
            result[result.rbegin()->first + 256] = "";
        return result;
    }
    int wait(int signal = 0)
    {
        int status = 0;
        if (_pid <= 0)
            return 0;
        if (signal)
            ::kill(_pid, signal);
        ::waitpid(_pid, &status, 0);
        _pid = 0;
        return status;
    }

private:
    pid_t _pid = 0;
    UniqueFd _output;
};

} // namespace vnt
