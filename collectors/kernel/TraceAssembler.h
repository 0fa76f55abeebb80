#pragma once

#include <unordered_map>
#include <vector>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "collectors/kernel/EventSource.h"
#include "collectors/kernel/TargetTasks.h"
#include "collectors/stacks/StackInterner.h"
#include "collectors/stacks/ThreadTable.h"
#include "platform/base/ByteCursor.h"
#include "records/TraceRecordWriter.h"

namespace vnt {

/// Turns what an EventSource reads into messages for the sink. Owned by the tracer; every call on its reader thread.
/// An event costs about 60 ns, with a known stack of 32 frames about 100.
class TraceAssembler final : public EventSourceHandler {
public:
    struct Settings {
        trace::SessionRecord session;
        bool filters = false; ///< events of other processes come too, and are left out here
        bool sameNumbers = true; ///< the kernel's thread ids are ours (no pid namespace of our own)
    };
    enum class Wait { kNo, kForRoom };

    /// `observer` may be null; all others outlive the assembler.
    TraceAssembler(const Settings& settings, const std::vector<Tracepoint>& tracepoints, const TraceFs& files,
                   RecordSink& sink, ProcessObserver* observer);

    /// A thread of the target that is there when recording begins.
    void addTask(const TaskIds& task)
    {
        _tasks.add(task.tid);
        _threads.learn(task.pid, task.tid);
    }

    void onEvent(const RawEvent& event) override;
    void onProcessRecord(const perf_event_header& header, std::span<const std::byte> payload) override;
    void onLost(trace::LostCause cause, uint64_t count) override { _lost[static_cast<size_t>(cause)] += count; }

    /// All that happened before `timeNs` has been passed in.
    void onSettled(uint64_t timeNs);
    /// Sends what is there. A batch without room is dropped and counted unless `wait` is kForRoom.
    /// Errors: kPeerGone, from then on nothing is sent.
    Status flush(Wait wait, uint64_t recorderCpuNs);
    /// Sends what is there and defines everything again from then on.
    void renewGeneration();
    /// Counts of loss are written again with the next flush, whether they changed or not.
    void repeatLosses();

private:
    static constexpr uint32_t kUndefined = UINT32_MAX;

    /// Marks threads that are not of the target.
    class Definitions final : public stacks::StackDefinitions {
    public:
        Definitions(trace::TraceRecordWriter& writer, const TargetTasks& tasks) : _writer(writer), _tasks(tasks) { }
        uint32_t addNode(uint32_t caller, uint64_t callerAddress, uint64_t address) override
        {
            return _writer.addNode(caller, callerAddress, address);
        }
        uint32_t addCutNode() override { return _writer.addCutNode(); }
        void addThread(uint32_t thread, const stacks::ThreadRecord& record) override;

    private:
        trace::TraceRecordWriter& _writer;
        const TargetTasks& _tasks;
    };

    [[nodiscard]] bool concerns(const RawEvent& event, const Tracepoint& tracepoint) const;
    uint32_t typeOf(const RawEvent& event, const Tracepoint& tracepoint);
    uint32_t define(const Tracepoint& tracepoint, uint32_t call, bool is32Bit);
    void onMapping(const perf_event_header& header, ByteCursor cursor, uint64_t timeNs);
    void onName(const perf_event_header& header, ByteCursor cursor, uint64_t timeNs);
    void onTask(uint32_t type, ByteCursor cursor);
    void writeLosses();
    void forgetDefinitions();
    void send(Wait wait);

    const std::vector<Tracepoint>& _tracepoints;
    const TraceFs& _files;
    RecordSink& _sink;
    ProcessObserver* _observer;
    const bool _filters;
    const bool _sameNumbers;
    const uint32_t _maxFrames;
    trace::TraceRecordWriter _writer;
    StackInterner _interner;
    ThreadTable _threads;
    TargetTasks _tasks;
    Definitions _definitions{_writer, _tasks};
    std::vector<std::vector<uint32_t>> _types; ///< numbers by tracepoint, and by system call where it is one
    std::vector<uint64_t> _values;
    uint64_t _latestNs = 0;
    uint64_t _lost[trace::kLostCauses] = {};
    uint64_t _lostWritten[trace::kLostCauses] = {};
    Status _status;
};

} // namespace vnt
