#include <Vantora/Platform.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

TEST(CQueues, RunWorkInOrder)
{
    dispatch_queue_t queue = dispatch_queue_create("label", nullptr);
    EXPECT_STREQ(dispatch_queue_get_label(queue), "label");
    std::vector<int> order;
    dispatch_async_f(queue, &order, [](void* context) { static_cast<std::vector<int>*>(context)->push_back(1); });
    dispatch_sync_f(queue, &order, [](void* context) { static_cast<std::vector<int>*>(context)->push_back(2); });
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    dispatch_retain(queue);
    dispatch_release(queue);
    dispatch_sync_f(queue, nullptr, nullptr);
    dispatch_async_f(nullptr, nullptr, nullptr);
    dispatch_release(nullptr);
    EXPECT_EQ(dispatch_queue_get_label(nullptr), nullptr);
    dispatch_release(queue);
}

} // namespace
