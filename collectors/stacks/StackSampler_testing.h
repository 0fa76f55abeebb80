#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"
#include "records/StackRecordReader.h"

/// What tests of the sampler record with, and what they record.
namespace vnt {

/// Where a target's functions are, from the line of names, begins and ends that it prints.
class FunctionMap {
public:
    FunctionMap() = default;
    explicit FunctionMap(const std::string& line)
    {
        std::istringstream words(line);
        for (std::string name, begin, end; words >> name >> begin >> end;)
            _byBegin[std::stoull(begin, nullptr, 16)] = {std::stoull(end, nullptr, 16), name};
    }
    /// Empty for an address in none of them.
    [[nodiscard]] std::string at(uint64_t address) const
    {
        const auto next = _byBegin.upper_bound(address);
        return next == _byBegin.begin() || address >= std::prev(next)->second.first ? ""
                                                                                    : std::prev(next)->second.second;
    }

private:
    std::map<uint64_t, std::pair<uint64_t, std::string>> _byBegin; ///< end and name
};

/// More samples than one thread can have had at one a millisecond of the time in between: some were counted twice. A
/// thread that changes processors meets each one's clock at another point, so there may be some more than milliseconds.
inline size_t tooManySamples(uint64_t firstNs, uint64_t lastNs)
{
    return static_cast<size_t>((lastNs - std::min(firstNs, lastNs)) / 1'000'000 * 5 / 4 + 50);
}

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
            waits.push_back(framesOf(sample));
            return;
        }
        ++samples;
        ++byPid[sample.thread->pid];
        tids.insert(sample.thread->tid);
        names.insert(sample.thread->name);
        timesNs[sample.thread->pid].push_back(sample.timeNs);
        firstNs = std::min(firstNs, sample.timeNs);
        lastNs = std::max(lastNs, sample.timeNs);
        sampled.push_back(framesOf(sample));
        if (!sampled.back().empty() && sampled.back()[0] >> 63)
            ++inKernel;
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
    /// How many of `recorded` have a frame of `name`.
    static size_t countWith(const std::vector<std::vector<uint64_t>>& recorded, const FunctionMap& functions,
                            const char* name)
    {
        return static_cast<size_t>(std::count_if(recorded.begin(), recorded.end(), [&](const auto& frames) {
            return std::any_of(frames.begin(), frames.end(),
                               [&](uint64_t address) { return functions.at(address) == name; });
        }));
    }
    double share(const FunctionMap& functions, const char* name) const
    {
        return sampled.empty() ? 0 : 100.0 * double(countWith(sampled, functions, name)) / double(sampled.size());
    }

    std::vector<std::vector<uint64_t>> sampled, waits; ///< the stacks
    uint64_t firstNs = UINT64_MAX, lastNs = 0; ///< of samples
    std::map<uint32_t, std::vector<uint64_t>> timesNs; ///< likewise, by process
    std::map<std::string, uint64_t> blockedNs; ///< by thread name
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
    std::vector<uint64_t> framesOf(const stacks::SampleRecord& sample) const
    {
        std::vector<uint64_t> frames;
        _reader.frames(sample.stack, frames);
        return frames;
    }

    Mutex _mutex;
    Condition _changed;
    stacks::StackRecordReader _reader;
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
    /// Waits for the line that tells where the functions are.
    FunctionMap functions() { return FunctionMap(line()); }
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
