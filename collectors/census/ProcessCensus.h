#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <thread>
#include <unordered_map>

#include "collectors/census/ExitStatistics.h"
#include "collectors/census/ProcessEvents.h"
#include "collectors/census/ProcessReader.h"
#include "collectors/common/RecordSink.h"
#include "platform/base/Mutex.h"
#include "records/CensusRecordWriter.h"

namespace vnt {

/// Watches what every process of the machine uses: looks at all of them at an interval, and follows their beginnings
/// and ends in between. Created, started and stopped by one control thread; owns its own. Records go to the sink as
/// batches of records/CensusRecords.h. A sweep costs 0.3 us for a process that did nothing since the last one, 30 for
/// others.
class ProcessCensus {
public:
    explicit ProcessCensus(RecordSink& sink) : _sink(sink) { }
    ~ProcessCensus(); ///< stops without sending what is left
    ProcessCensus(const ProcessCensus&) = delete;
    ProcessCensus& operator=(const ProcessCensus&) = delete;

    /// Between sweeps; at any time, from the next start on.
    void setInterval(uint64_t intervalNs) { _intervalNs = intervalNs; }
    /// The first sweep begins at once. Nothing when it runs already.
    Status start();
    /// A last sweep is made; every record has gone to the sink when this returns.
    void stop();

private:
    struct Tracked {
        census::ProcessRecord process;
        census::Usage told{}; ///< what the reader of the records knows
        uint32_t number = 0;
        uint32_t generation = 0; ///< of `number` and `told`; 0: not told yet
        bool looked = false; ///< its use was read since it began, or since its exec
        bool started = false; ///< told as begun within the recording
        bool ended = false; ///< and waits for its parent
        bool leaderGone = false; ///< its first thread has ended, others go on, or were still being taken apart
        int64_t leaderStatus = -1; ///< with which it ended
        uint64_t sweep = 0; ///< that saw it last
    };
    using Table = std::unordered_map<pid_t, Tracked>;

    // All of these on the census's own thread.
    void run();
    [[nodiscard]] std::chrono::milliseconds untilNextSweep() const;
    void sweep();
    void visit(pid_t pid, bool lookAtAll);
    void onEvent(const ProcessEvents::Event& event);
    void onStarted(const ProcessEvents::Event& event);
    void onEnded(const ProcessEvents::Event& event);
    Tracked& begin(pid_t pid, census::ProcessRecord process, std::optional<uint64_t> startedNs);
    void end(Tracked& tracked, uint64_t timeNs, int64_t status);
    /// Its number in this generation, after telling of it where that is due.
    uint32_t tell(Tracked& tracked);
    void tellUsage(Tracked& tracked, const census::Usage& usage);
    void tellLife(Tracked& tracked, const ExitStatistics::Life& life, uint64_t timeNs);
    void flush(bool wait);
    void tellLost();

    RecordSink& _sink;
    uint64_t _intervalNs = 1'000'000'000;
    ProcessReader _reader;
    std::optional<ProcessEvents> _events;
    std::optional<ExitStatistics> _exits;
    std::optional<census::CensusRecordWriter> _writer; ///< from the first start on
    uint32_t _generation = 1;
    Table _tracked;
    uint64_t _beganNs = 0;
    uint64_t _nextSweepNs = 0;
    uint64_t _sweeps = 0;
    uint64_t _sweepsLeftOut = 0;
    uint64_t _cpuBeforeNs = 0; ///< processor time of earlier threads of this census
    std::array<uint64_t, census::kLostCauses> _lost{};
    std::array<uint64_t, census::kLostCauses> _lostTold{};

    UniqueFd _wake; ///< eventfd: stop
    std::atomic<bool> _stopping{false}; // relaxed: the eventfd orders
    std::atomic<bool> _peerGone{false}; // relaxed: nothing hangs on it but work saved
    std::thread _thread;
};

} // namespace vnt
