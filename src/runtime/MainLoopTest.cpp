#include "runtime/MainLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(MainLoopTest, RunsPostedTasksInOrderUntilTerminated) {
    HeadlessMainLoop loop;
    std::vector<int> order;
    loop.post([&] { order.push_back(1); });
    loop.post([&] {
        order.push_back(2);
        loop.terminate(7);
    });
    loop.post([&] { order.push_back(3); });
    EXPECT_EQ(loop.run(), 7);
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(MainLoopTest, WorkerWaitsForTheMainThreadTask) {
    HeadlessMainLoop loop;
    std::atomic<bool> ranOnMain{false};
    std::thread::id mainId = std::this_thread::get_id();
    std::thread worker([&] {
        EXPECT_FALSE(loop.isMainThread());
        loop.runOnMainThreadAndWait(
            [&] { ranOnMain = std::this_thread::get_id() == mainId && loop.isMainThread(); });
        // Returns only after the task ran.
        EXPECT_TRUE(ranOnMain);
        loop.post([&] { loop.terminate(0); });
    });
    EXPECT_EQ(loop.run(), 0);
    worker.join();
    EXPECT_TRUE(ranOnMain);
}

TEST(MainLoopTest, RunOnMainThreadFromTheMainThreadRunsDirectly) {
    HeadlessMainLoop loop;
    bool ran = false;
    loop.runOnMainThreadAndWait([&] { ran = true; });
    EXPECT_TRUE(ran);
}

TEST(MainLoopTest, WaitingOnAnEndedLoopReturns) {
    HeadlessMainLoop loop;
    loop.post([&] { loop.terminate(0); });
    loop.run();
    bool ran = false;
    std::thread worker([&] { loop.runOnMainThreadAndWait([&] { ran = true; }); });
    worker.join();
    EXPECT_FALSE(ran);
}

} // namespace
