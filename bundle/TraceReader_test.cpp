#include "bundle/TraceReader.h"

#include <gtest/gtest.h>

#include <set>

#include "bundle/TraceSummaryBuilder.h"
#include "records/TraceRecordWriter.h"

namespace vnt {
namespace {

using trace::EventKind;

/// Writes what a test says happened, message by message.
class Script {
public:
    explicit Script(uint32_t flags = 0) : _writer(session(flags)) { }

    uint32_t type(EventKind kind, const std::string& name, size_t values, const std::string& label = "")
    {
        return _writer.addType({kind, 0, name, label, 0, std::vector<std::string>(values, "v")});
    }
    void thread(uint32_t number, uint32_t tid, uint32_t flags = 0) { _writer.addThread(number, {1, tid, flags, "t"}); }
    void event(uint64_t timeNs, uint32_t type, uint32_t thread, std::vector<uint64_t> values, uint32_t cpu = 0,
               uint32_t stack = 0)
    {
        _writer.addEvent({timeNs, cpu, type, thread, stack, values, {}});
    }
    trace::TraceRecordWriter& writer() { return _writer; }
    void send()
    {
        const auto view = _writer.message();
        messages.emplace_back(view.begin(), view.end());
        _writer.messageSent();
    }
    template <typename OnEvent> TraceTotals read(OnEvent onEvent)
    {
        send();
        TraceReader reader(onEvent, {}, remarks);
        for (const auto& message : messages)
            reader.add(message);
        return reader.finish();
    }

    std::vector<std::vector<std::byte>> messages;
    Remarks remarks;

private:
    static trace::SessionRecord session(uint32_t flags)
    {
        trace::SessionRecord record;
        record.flags = flags;
        return record;
    }
    trace::TraceRecordWriter _writer;
};

TEST(TraceReader, EventsOfAllProcessorsComeInTheOrderOfTime)
{
    Script script;
    const uint32_t type = script.type(EventKind::kOther, "a:b", 1);
    script.thread(0, 10);
    // Two passes over two processors; the mark behind the second says that the first is complete.
    for (const uint64_t time : {100, 300, 500})
        script.event(time, type, 0, {time}, 0);
    for (const uint64_t time : {50, 200, 400, 600})
        script.event(time, type, 0, {time}, 1);
    script.writer().addSettled(0);
    for (const uint64_t time : {550, 800})
        script.event(time, type, 0, {time}, 0);
    script.send();
    for (const uint64_t time : {590, 700})
        script.event(time, type, 0, {time}, 1);
    script.writer().addSettled(540);
    std::vector<uint64_t> times;
    const TraceTotals totals = script.read([&](const TraceEvent& event) {
        EXPECT_EQ(event.value(0), event.timeNs()) << "values belong to their event";
        const std::set<uint64_t> onSecond{50, 200, 400, 590, 600, 700};
        EXPECT_EQ(event.cpu(), onSecond.count(event.timeNs())) << event.timeNs();
        times.push_back(event.timeNs());
    });
    EXPECT_EQ(times, (std::vector<uint64_t>{50, 100, 200, 300, 400, 500, 550, 590, 600, 700, 800}));
    EXPECT_EQ(totals.events, 11u);
    EXPECT_EQ(totals.unordered, 0u);
    EXPECT_EQ(totals.firstTimeNs, 50u);
    EXPECT_EQ(totals.lastTimeNs, 800u);
}

TEST(TraceReader, EventsKeepTheirDefinitionsAcrossGenerations)
{
    Script script;
    script.type(EventKind::kOther, "first:type", 1);
    script.thread(0, 10);
    script.event(900, 0, 0, {1});
    script.send();
    script.writer().beginGeneration();
    script.type(EventKind::kOther, "second:type", 1);
    script.thread(0, 20);
    script.event(100, 0, 0, {2});
    std::string told;
    const TraceTotals totals = script.read([&](const TraceEvent& event) {
        told +=
            event.type().name + " " + std::to_string(event.thread().tid) + " " + std::to_string(event.value(0)) + "\n";
    });
    EXPECT_EQ(told, "second:type 20 2\nfirst:type 10 1\n");
    EXPECT_EQ(totals.unordered, 0u);
}

TEST(TraceReader, WhatComesTooLateIsDeliveredAndCounted)
{
    Script script;
    const uint32_t type = script.type(EventKind::kOther, "a:b", 0);
    script.thread(0, 10);
    script.event(100, type, 0, {});
    script.writer().addSettled(200);
    script.event(50, type, 0, {});
    const TraceTotals totals = script.read([](const TraceEvent&) {});
    EXPECT_EQ(totals.events, 2u);
    EXPECT_EQ(totals.unordered, 1u);
}

TEST(TraceReader, ARecordingThatNeverSettlesStaysInBounds)
{
    Script script;
    const uint32_t type = script.type(EventKind::kOther, "a:b", 0);
    script.thread(0, 10);
    constexpr size_t kEvents = TraceReader::kMaxWaiting + 10;
    for (size_t i = 0; i < kEvents; ++i) {
        script.event(i, type, 0, {});
        if (script.writer().sizeBytes() > (1u << 20))
            script.send();
    }
    const TraceTotals totals = script.read([](const TraceEvent&) {});
    EXPECT_EQ(totals.events, kEvents);
    EXPECT_EQ(totals.unordered, 0u);
    // Nothing at all, and generations without end.
    Script empty;
    EXPECT_EQ(TraceReader([](const TraceEvent&) {}, {}, empty.remarks).finish().events, 0u);
    for (int i = 0; i < 100; ++i) {
        empty.type(EventKind::kOther, "a:b", 0);
        empty.thread(0, 10);
        empty.event(1000, 0, 0, {});
        empty.send();
        empty.writer().beginGeneration();
    }
    EXPECT_EQ(empty.read([](const TraceEvent&) {}).events, 100u);
}

TEST(TraceSummary, CountsCallsSwitchesAndWakeUps)
{
    Script script(trace::SessionRecord::kUserStacks);
    const uint32_t enter = script.type(EventKind::kCallEnter, "raw_syscalls:sys_enter", 1, "read");
    const uint32_t leave = script.type(EventKind::kCallExit, "raw_syscalls:sys_exit", 1, "read");
    const uint32_t change = script.type(EventKind::kSwitch, "sched:sched_switch", 2);
    const uint32_t wake = script.type(EventKind::kWakeup, "sched:sched_wakeup", 2);
    script.thread(0, 10);
    script.thread(1, 0, trace::kOutsideTarget);
    const uint32_t outer = script.writer().addNode(0, 0, 0x1000);
    const uint32_t inner = script.writer().addNode(outer, 0x1000, 0x2000);
    // A call that waits 700 ns: 500 until woken, 200 until running again.
    script.event(1000, enter, 0, {3}, 0, inner);
    script.event(1100, change, 0, {1, 0}, 0, inner);
    script.event(1600, wake, 1, {10, 0});
    script.event(1800, change, 1, {0, 10});
    script.event(1900, leave, 0, {static_cast<uint64_t>(-4)});
    // Pushed aside for 50; a call whose entry was not recorded; one that is still under way.
    script.event(2000, change, 0, {0x100, 99}, 0, outer);
    script.event(2050, change, 1, {1, 10});
    script.event(2100, leave, 0, {7});
    script.event(2200, enter, 0, {3});
    TraceSummaryBuilder builder;
    const TraceTotals totals = script.read([&](const TraceEvent& event) { builder.add(event); });
    const TraceSummary summary = builder.take();
    EXPECT_EQ(totals.events, 9u);
    EXPECT_EQ(summary.byName,
              (std::map<std::string, uint64_t>{
                  {"raw_syscalls:sys_enter", 2}, {"raw_syscalls:sys_exit", 2}, {"sched:sched_switch", 2}}));
    EXPECT_EQ(summary.outsideByName,
              (std::map<std::string, uint64_t>{{"sched:sched_switch", 2}, {"sched:sched_wakeup", 1}}));
    ASSERT_EQ(summary.calls.size(), 1u);
    EXPECT_EQ(summary.calls[0].name, "read");
    EXPECT_EQ(summary.calls[0].entered, 2u);
    EXPECT_EQ(summary.calls[0].failed, 1u);
    EXPECT_EQ(summary.calls[0].spans.count, 1u);
    EXPECT_EQ(summary.calls[0].spans.totalNs, 900u);
    EXPECT_EQ(summary.voluntarySwitches, 1u);
    EXPECT_EQ(summary.involuntarySwitches, 1u);
    EXPECT_EQ(summary.offProcessor.totalNs, 750u);
    EXPECT_EQ(summary.offProcessor.longestNs, 700u);
    EXPECT_EQ(summary.wakeups.count, 1u);
    EXPECT_EQ(summary.wakeups.totalNs, 200u);
    ASSERT_EQ(summary.threads.size(), 1u) << "the waker is not the target's";
    EXPECT_EQ(summary.threads[0].tid, 10u);
    EXPECT_EQ(summary.threads[0].events, 6u);
    ASSERT_EQ(summary.offStacks.size(), 2u);
    EXPECT_EQ(summary.offStacks[0].frames, (std::vector<uint64_t>{0x2000, 0x1000}));
    EXPECT_EQ(summary.offStacks[0].spans.totalNs, 700u);
    EXPECT_EQ(summary.offStacks[1].spans.totalNs, 50u);
    EXPECT_EQ(summary.unseenReturns, 0u);
}

TEST(TraceSummary, AWaitWhoseEndIsMissingLastsUntilTheThreadsNextEvent)
{
    Script script;
    const uint32_t leave = script.type(EventKind::kCallExit, "raw_syscalls:sys_exit", 1, "read");
    const uint32_t change = script.type(EventKind::kSwitch, "sched:sched_switch", 2);
    const uint32_t wake = script.type(EventKind::kWakeup, "sched:sched_wakeup", 2);
    const uint32_t fault = script.type(EventKind::kOther, "exceptions:page_fault_kernel", 0);
    script.thread(0, 10);
    script.thread(1, 0, trace::kOutsideTarget);
    for (const uint64_t time : {1000, 2000, 3000}) {
        script.event(time, change, 0, {1, 0});
        script.event(time + 1, fault, 0, {}); // still on its way off
        script.event(time + 400, wake, 1, {10, 0});
    }
    script.event(3500, leave, 0, {0});
    TraceSummaryBuilder builder;
    script.read([&](const TraceEvent& event) { builder.add(event); });
    const TraceSummary summary = builder.take();
    EXPECT_EQ(summary.unseenReturns, 3u);
    EXPECT_EQ(summary.offProcessor.totalNs, 2500u);
    EXPECT_EQ(summary.voluntarySwitches, 3u);
}

} // namespace
} // namespace vnt
