#include "collectors/stacks/WaitTracker.h"

#include <algorithm>
#include <utility>

namespace vnt {
namespace {

constexpr size_t kMostThreads = 65536; // those that ended are removed; more means lost exit records

} // namespace

void WaitTracker::onStack(uint32_t tid, std::span<const uint64_t> chain)
{
    if (_stacks.size() >= kMostThreads)
        _stacks.clear();
    _stacks[tid].assign(chain.begin(), chain.end());
}

void WaitTracker::onLeave(uint32_t pid, uint32_t tid, uint64_t timeNs)
{
    auto stack = _stacks.extract(tid);
    _moments.push_back({timeNs, pid, tid, Kind::kLeave, stack ? std::move(stack.mapped()) : std::vector<uint64_t>()});
}

void WaitTracker::onTake(uint32_t pid, uint32_t tid, uint64_t timeNs)
{
    _moments.push_back({timeNs, pid, tid, Kind::kTake, {}});
}

void WaitTracker::onBegin(uint32_t pid, uint32_t tid, uint64_t timeNs)
{
    _moments.push_back({timeNs, pid, tid, Kind::kBegin, {}});
}

void WaitTracker::onExit(uint32_t pid, uint32_t tid, uint64_t timeNs)
{
    _moments.push_back({timeNs, pid, tid, Kind::kExit, {}});
}

void WaitTracker::apply(Moment& moment, uint64_t beganNs, const OnWait& onWait)
{
    Thread& thread = _threads[moment.tid];
    thread.pid = moment.pid;
    const bool first = !std::exchange(thread.seen, true);
    switch (moment.kind) {
    case Kind::kBegin:
        thread = Thread();
        thread.pid = moment.pid;
        thread.seen = true;
        return;
    case Kind::kExit:
        thread.exited = true;
        thread.waits = false;
        return;
    case Kind::kLeave:
        if (thread.waits || thread.exited)
            return;
        thread.waits = true;
        thread.sinceNs = moment.timeNs;
        thread.chain = std::move(moment.chain);
        return;
    case Kind::kTake:
        if (thread.exited)
            return;
        if (thread.waits)
            onWait({moment.pid, moment.tid, thread.sinceNs, moment.timeNs, thread.chain});
        else if (first && beganNs < moment.timeNs)
            onWait({moment.pid, moment.tid, beganNs, moment.timeNs, {}});
        thread.waits = false;
        return;
    }
}

void WaitTracker::settle(uint64_t beganNs, uint64_t untilNs, const OnWait& onWait)
{
    beganNs = std::max(beganNs, _toldNs); // what was before is told
    if (_threads.size() > kMostThreads)
        _threads.clear();
    const auto later = std::stable_partition(_moments.begin(), _moments.end(),
                                             [untilNs](const Moment& moment) { return moment.timeNs <= untilNs; });
    std::stable_sort(_moments.begin(), later, [](const Moment& a, const Moment& b) { return a.timeNs < b.timeNs; });
    for (auto moment = _moments.begin(); moment != later; ++moment)
        apply(*moment, beganNs, onWait);
    _moments.erase(_moments.begin(), later);
}

void WaitTracker::finish(uint64_t beganNs, uint64_t untilNs, uint32_t pid, std::span<const uint32_t> expected,
                         const OnWait& onWait)
{
    settle(beganNs, untilNs, onWait);
    beganNs = std::max(beganNs, _toldNs);
    _toldNs = untilNs;
    for (const auto& [tid, thread] : _threads) {
        if (thread.waits && thread.sinceNs < untilNs)
            onWait({thread.pid, tid, thread.sinceNs, untilNs, thread.chain});
    }
    for (const uint32_t tid : expected) {
        const auto found = _threads.find(tid);
        if ((found == _threads.end() || !found->second.seen) && beganNs < untilNs)
            onWait({pid, tid, beganNs, untilNs, {}});
    }
    _threads.clear();
    _moments.clear();
}

} // namespace vnt
