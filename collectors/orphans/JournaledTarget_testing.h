#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "collectors/heap/HeapCollector.h"
#include "platform/base/UniqueFd.h"
#include "platform/base/sys.h"
#include "records/HeapJournal.h"

/// For tests and benchmarks: a program of tests/targets with the journal in it, and the collector that listens to it.
namespace vnt::test {

class NoSink final : public RecordSink {
public:
    Status trySend(std::span<const std::byte>) override { return {}; }
    Status send(std::span<const std::byte>) override { return {}; }
    void reportProblem(const std::string&) override { }
};

class QuietObserver : public HeapTargetObserver {
public:
    void onTargetStarted(uint64_t, pid_t, const std::string&, bool) override { }
    void onNewCode(pid_t) override { }
    void onTargetEnded(pid_t) override { }
};

class JournaledTarget {
public:
    /// `arguments[0]`: the program's path.
    JournaledTarget(const std::string& journal, std::vector<std::string> arguments,
                    HeapTargetObserver* observer = nullptr)
    {
        HeapCollectorOptions options;
        options.clientUid = ::geteuid();
        auto started = HeapCollector::start(options, _sink, observer ? *observer : _observer);
        VNT_CHECK(started.ok());
        _collector = started.take();
        auto pipe = sys::makePipe();
        VNT_CHECK(pipe.ok());
        _output = std::move(pipe.value().first);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, pipe.value().second.get(), 1);
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::string preload = "LD_PRELOAD=" + journal;
        std::string name = std::string(journal::kSocketVariable) + "=" + _collector->socketName();
        char* environment[] = {preload.data(), name.data(), nullptr};
        VNT_CHECK(::posix_spawn(&_pid, argv[0], &actions, nullptr, argv.data(), environment) == 0);
        ::posix_spawn_file_actions_destroy(&actions);
    }
    ~JournaledTarget() { end(); }
    JournaledTarget(const JournaledTarget&) = delete;
    JournaledTarget& operator=(const JournaledTarget&) = delete;

    /// Waits until the program has written `line`; false when it ended before, or after a minute.
    bool awaitLine(const std::string& line)
    {
        while (_text.find(line + "\n") == std::string::npos) {
            struct pollfd readable[] = {{_output.get(), POLLIN, 0}};
            char buffer[4096];
            const auto ready = sys::pollFds(readable, std::chrono::seconds(60));
            const auto size = ready.ok() && ready.value() > 0 ? sys::readSome(_output.get(), buffer, sizeof buffer)
                                                              : Result<size_t>(size_t{0});
            if (!size.ok() || size.value() == 0)
                return false;
            _text.append(buffer, size.value());
        }
        return true;
    }
    /// What it has written since the last call.
    std::string takeText() { return std::exchange(_text, {}); }
    void end()
    {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
        _pid = -1;
    }
    [[nodiscard]] pid_t pid() const { return _pid; }
    [[nodiscard]] HeapCollector& collector() { return *_collector; }

private:
    NoSink _sink;
    QuietObserver _observer;
    std::unique_ptr<HeapCollector> _collector;
    UniqueFd _output;
    std::string _text;
    pid_t _pid = -1;
};

} // namespace vnt::test
