#include "platform/dispatch/SerialQueue.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>

namespace vnt {
namespace {

constexpr auto kDeadline = std::chrono::seconds(60);

/// Runs when everything queued before it has run.
void drain(const Ref<SerialQueue>& queue)
{
    queue->sync([] {});
}

TEST(SerialQueue, RunsSynchronousBlocksOnTheCallingThread)
{
    const Ref<SerialQueue> queue = SerialQueue::create("q");
    std::thread::id ranOn;
    queue->sync([&] {
        ranOn = std::this_thread::get_id();
        EXPECT_TRUE(queue->isCurrent());
    });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(queue->isCurrent());
    queue->async([&] { ranOn = std::this_thread::get_id(); });
    drain(queue);
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(SerialQueue, KeepsTheOrderOfBothKindsAndRunsOneAtATime)
{
    const Ref<SerialQueue> queue = SerialQueue::create("order");
    std::vector<int> order; // unguarded: the queue is what guards it
    for (int i = 0; i < 300; i += 3) {
        queue->async([&order, i] { order.push_back(i); });
        queue->async([&order, i] { order.push_back(i + 1); });
        queue->sync([&order, i] { order.push_back(i + 2); });
    }
    ASSERT_EQ(order.size(), 300u);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST(SerialQueue, ServesManyThreadsEachInItsOwnOrder)
{
    const Ref<SerialQueue> queue = SerialQueue::create("many");
    constexpr int kThreads = 6;
    constexpr int kRounds = 400;
    std::vector<std::vector<int>> seen(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            auto& mine = seen[static_cast<size_t>(t)];
            for (int i = 0; i < kRounds; ++i) {
                if ((i + t) % 3 == 0)
                    queue->sync([&mine, i] { mine.push_back(i); });
                else
                    queue->async([&mine, i] { mine.push_back(i); });
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    drain(queue);
    for (const auto& mine : seen) {
        ASSERT_EQ(mine.size(), static_cast<size_t>(kRounds));
        EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
    }
}

TEST(SerialQueue, HandsExceptionsToTheWaiterAndDropsThoseOfAsynchronousBlocks)
{
    const Ref<SerialQueue> queue = SerialQueue::create("raising");
    EXPECT_THROW(queue->sync([] { throw 7; }), int);
    bool ran = false;
    testing::internal::CaptureStderr();
    queue->async([] { throw std::runtime_error("told"); });
    queue->async([] { throw 7; });
    queue->async([&] { ran = true; });
    drain(queue);
    EXPECT_TRUE(ran);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "queue raising: a block raised: told\nqueue raising: a block raised i\n");
}

TEST(SerialQueue, RunsWhatIsQueuedAfterTheLastReferenceIsGone)
{
    std::promise<void> gate;
    std::promise<int> result;
    Ref<SerialQueue> queue = SerialQueue::create("dropped");
    queue->async([open = gate.get_future().share()] { open.wait(); });
    // This block holds the last reference: it goes on the queue's own thread.
    queue->async([last = queue, &result] { result.set_value(last->isCurrent() ? 42 : 0); });
    queue = nullptr;
    gate.set_value();
    auto outcome = result.get_future();
    ASSERT_EQ(outcome.wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(outcome.get(), 42);
}

TEST(SerialQueue, ReleasesWhatABlockHoldsBeforeTheNextOneRuns)
{
    const Ref<SerialQueue> queue = SerialQueue::create("holding");
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = held;
    queue->async([kept = std::move(held)] { (void)kept; });
    bool gone = false;
    queue->sync([&] { gone = watch.expired(); });
    EXPECT_TRUE(gone);
}

TEST(SerialQueue, ThreadHasEverySignalBlockedAndTheLabelAsItsName)
{
    const Ref<SerialQueue> queue = SerialQueue::create("Vantora12 and more");
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    sigset_t mask;
    sigemptyset(&mask);
    char name[32] = "";
    queue->async([&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        pthread_getname_np(pthread_self(), name, sizeof name);
    });
    drain(queue);
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGSEGV, SIGUSR1, SIGRTMAX})
        EXPECT_EQ(sigismember(&mask, signal), 1) << signal;
    EXPECT_STREQ(name, "Vantora12 and m");
    EXPECT_EQ(queue->label(), "Vantora12 and more");
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGINT), sigismember(&before, SIGINT));
}

TEST(SerialQueueDeathTest, StopsWhenABlockWaitsForItsOwnQueue)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const Ref<SerialQueue> queue = SerialQueue::create("self");
    EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }), "runner");
}

} // namespace
} // namespace vnt
