#include "report/ThreadWorker.h"

#include "TestSupport.h"
#include "runtime/MainLoop.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(ThreadWorkerTest, TaskRunsOnItsOwnThreadAndCallbackOnTheMainThread) {
    HeadlessMainLoop loop;
    const auto mainThread = std::this_thread::get_id();
    std::thread::id taskThread;
    std::thread::id callbackThread;
    std::string received;
    auto worker = ThreadWorker::workOn(
        loop, "ProcessManifest", "performUpdate:worker:",
        [&](const std::any& argument, ThreadWorker&) -> std::any {
            taskThread = std::this_thread::get_id();
            return std::any_cast<std::string>(argument) + " done";
        },
        std::string("update"),
        [&](const std::any& result) {
            callbackThread = std::this_thread::get_id();
            received = std::any_cast<std::string>(result);
            loop.terminate(0);
        });
    ASSERT_TRUE(worker);
    loop.run();
    worker->waitUntilFinished();
    EXPECT_NE(taskThread, mainThread);
    EXPECT_EQ(callbackThread, mainThread);
    EXPECT_EQ(received, "update done");
    EXPECT_TRUE(worker->finished());
}

TEST(ThreadWorkerTest, WorkerWaitsUntilTheCallbackHasReturned) {
    HeadlessMainLoop loop;
    std::atomic<bool> callbackReturned{false};
    std::atomic<bool> finishedBeforeCallbackReturned{false};
    std::shared_ptr<ThreadWorker> worker;
    worker = ThreadWorker::workOn(
        loop, "t", "s", [](const std::any&, ThreadWorker&) -> std::any { return {}; }, {},
        [&](const std::any&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            finishedBeforeCallbackReturned = worker->finished();
            callbackReturned = true;
            loop.terminate(0);
        });
    loop.run();
    worker->waitUntilFinished();
    EXPECT_TRUE(callbackReturned);
    EXPECT_FALSE(finishedBeforeCallbackReturned);
}

TEST(ThreadWorkerTest, MissingTaskStartsNothingAndLogs) {
    HeadlessMainLoop loop;
    LogCapture log;
    auto worker = ThreadWorker::workOn(loop, "<ProcessManifest>", "performUpdate:worker:", {}, {});
    EXPECT_FALSE(worker);
    EXPECT_NE(log.text().find("\nThreadWorker reports: Target <ProcessManifest> does not respond "
                              "to selector performUpdate:worker:."),
              std::string::npos);
}

TEST(ThreadWorkerTest, TaskReturningNothingStillGetsItsCallback) {
    HeadlessMainLoop loop;
    bool called = false;
    bool empty = false;
    auto worker = ThreadWorker::workOn(
        loop, "t", "s", [](const std::any&, ThreadWorker&) -> std::any { return {}; }, {},
        [&](const std::any& result) {
            called = true;
            empty = !result.has_value();
            loop.terminate(0);
        });
    loop.run();
    worker->waitUntilFinished();
    EXPECT_TRUE(called);
    EXPECT_TRUE(empty);
}

TEST(ThreadWorkerTest, NoCallbackEndsTheWorkerQuietly) {
    HeadlessMainLoop loop;
    LogCapture log;
    std::atomic<bool> ran{false};
    auto worker = ThreadWorker::workOn(loop, "t", "s",
                                       [&](const std::any&, ThreadWorker&) -> std::any {
                                           ran = true;
                                           return 1;
                                       },
                                       {});
    worker->waitUntilFinished();
    EXPECT_TRUE(ran);
    EXPECT_TRUE(log.contains("isRunning: 1, _endRunLoop: 1"));
}

TEST(ThreadWorkerTest, CancellationMarkIsSetOnceAndSeenByTheTask) {
    HeadlessMainLoop loop;
    std::atomic<bool> started{false};
    int stepsDone = 0;
    auto worker = ThreadWorker::workOn(
        loop, "t", "s",
        [&](const std::any&, ThreadWorker& self) -> std::any {
            started = true;
            int steps = 0;
            while (!self.cancelled() && steps < 100000) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                ++steps;
            }
            return steps;
        },
        {},
        [&](const std::any& result) {
            stepsDone = std::any_cast<int>(result);
            loop.terminate(0);
        });
    while (!started)
        std::this_thread::yield();
    EXPECT_FALSE(worker->cancelled());
    worker->markAsCancelled();
    EXPECT_TRUE(worker->cancelled());
    worker->markAsCancelled();
    EXPECT_TRUE(worker->cancelled());
    loop.run();
    worker->waitUntilFinished();
    EXPECT_LT(stepsDone, 100000);
    EXPECT_TRUE(worker->cancelled());
}

} // namespace
