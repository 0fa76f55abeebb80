#include "collectors/stacks/WaitTracker.h"

#include <gtest/gtest.h>

#include <string>

namespace vnt {
namespace {

/// "tid:begin-end(frames) " for each wait told.
class Waits {
public:
    WaitTracker::OnWait collect()
    {
        return [this](const WaitTracker::Wait& wait) {
            _text += std::to_string(wait.tid) + ":" + std::to_string(wait.beginNs) + "-" + std::to_string(wait.endNs)
                + "(" + std::to_string(wait.chain.size()) + ") ";
        };
    }
    std::string take() { return std::exchange(_text, {}); }

private:
    std::string _text;
};

TEST(WaitTracker, PairsMomentsOfSeveralRings)
{
    WaitTracker tracker;
    Waits waits;
    const std::vector<uint64_t> chain{1, 2, 3};
    // The ring of the second processor is read first.
    tracker.onTake(7, 7, 300);
    tracker.onStack(7, std::vector<uint64_t>{4});
    tracker.onStack(7, chain);
    tracker.onLeave(7, 7, 200);
    tracker.onLeave(7, 7, 201);
    tracker.onTake(7, 7, 150);
    tracker.onLeave(7, 7, 120);
    tracker.settle(100, 250, waits.collect());
    EXPECT_EQ(waits.take(), "7:120-150(0) ") << "later moments may still have earlier ones to come";
    tracker.settle(100, 300, waits.collect());
    EXPECT_EQ(waits.take(), "7:200-300(3) ") << "the latest stack belongs to the leaving told after it";
}

TEST(WaitTracker, KnowsWhoWaitedSinceTheBeginningAndWhoStillWaits)
{
    WaitTracker tracker;
    Waits waits;
    tracker.onTake(7, 8, 150);
    tracker.onBegin(7, 9, 160);
    tracker.onTake(7, 9, 170);
    tracker.onRunning(10);
    tracker.onLeave(7, 11, 180);
    tracker.onExit(7, 12, 190);
    tracker.onLeave(7, 12, 191);
    const std::vector<uint32_t> threads{8, 9, 10, 11, 13};
    tracker.finish(100, 200, 7, threads, waits.collect());
    EXPECT_EQ(waits.take(), "8:100-150(0) 11:180-200(0) 13:100-200(0) ");
    tracker.onTake(7, 11, 350);
    tracker.settle(300, 400, waits.collect());
    EXPECT_EQ(waits.take(), "11:300-350(0) ") << "after a pause a wait begins with the recording";
    tracker.finish(300, 450, 7, std::vector<uint32_t>{11, 13}, waits.collect());
    EXPECT_EQ(waits.take(), "13:300-450(0) ");
    tracker.finish(300, 500, 7, std::vector<uint32_t>{13}, waits.collect());
    EXPECT_EQ(waits.take(), "13:450-500(0) ") << "nothing is told twice";
}

} // namespace
} // namespace vnt
