// A close ends a producer held by a full queue and a consumer waiting on an empty one.
#include "engine/run/FVBoundedQueue.h"

#include <gtest/gtest.h>
#include <future>

using namespace ferrovane;

TEST(BoundedQueue, CloseEndsBlockedProducersAndConsumersAndKeepsWhatWasPushed) {
    FVBoundedQueue<int> empty(1);
    auto consumer = std::async(std::launch::async, [&] { return empty.pop(); });
    FVBoundedQueue<int> queue(3);
    for (int i : {1, 2, 3}) ASSERT_TRUE(queue.push(i));
    auto producer = std::async(std::launch::async, [&] { return queue.push(4); });
    empty.close();
    queue.close();
    EXPECT_EQ(consumer.get(), std::nullopt);
    EXPECT_FALSE(producer.get());
    EXPECT_FALSE(queue.push(5));
    // What was pushed before the close is still taken, in order; a run as its predicate says.
    std::vector<int> run;
    ASSERT_TRUE(queue.popRun(run, [](const std::vector<int>& taken, int next) { return taken.size() < 2 && next > 0; }));
    EXPECT_EQ(run, (std::vector<int>{1, 2}));
    EXPECT_EQ(queue.pop(), 3);
    EXPECT_EQ(queue.pop(), std::nullopt);
}
