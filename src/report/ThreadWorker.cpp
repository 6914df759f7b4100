#include "report/ThreadWorker.h"

#include "runtime/LoggerUtility.h"
#include "runtime/MainLoop.h"

#include <thread>

std::shared_ptr<ThreadWorker> ThreadWorker::workOn(MainLoop& loop, const std::string& targetName,
                                                   const std::string& selectorName, Task task,
                                                   std::any argument, DidEnd didEnd) {
    if (!task) {
        NSLevelledLog(3, "\nThreadWorker reports: Target %@ does not respond to selector %@.",
                      targetName, selectorName);
        return nullptr;
    }
    auto worker = std::make_shared<ThreadWorker>(loop, std::move(task), std::move(argument),
                                                 std::move(didEnd));
    // The thread holds its own share of the worker, so the worker outlives the task even
    // when the caller lets go of it.
    std::thread([worker] { worker->startThread(); }).detach();
    return worker;
}

ThreadWorker::ThreadWorker(MainLoop& loop, Task task, std::any argument, DidEnd didEnd)
    : _loop(loop), _task(std::move(task)), _argument(std::move(argument)),
      _didEndSelector(std::move(didEnd)) {}

ThreadWorker::~ThreadWorker() = default;

void ThreadWorker::startThread() {
    runPrimaryTask();
    bool endRunLoop = false;
    {
        std::lock_guard lock(_mutex);
        endRunLoop = _endRunLoop;
    }
    NSLevelledLog(3, "isRunning: %d, _endRunLoop: %d", 1, endRunLoop ? 1 : 0);
    _ended.notify_all();
}

void ThreadWorker::runPrimaryTask() {
    std::any result = _task(_argument, *this);
    if (_didEndSelector) {
        // Runs on the main thread; this thread waits until the callback has returned.
        _loop.runOnMainThreadAndWait([this, &result] { _didEndSelector(result); });
    }
    std::lock_guard lock(_mutex);
    _endRunLoop = true;
}

void ThreadWorker::markAsCancelled() {
    int expected = 0;
    _cancelled.compare_exchange_strong(expected, 1);
}

bool ThreadWorker::cancelled() const {
    return _cancelled.load() == 1;
}

void ThreadWorker::waitUntilFinished() {
    std::unique_lock lock(_mutex);
    _ended.wait(lock, [this] { return _endRunLoop; });
}

bool ThreadWorker::finished() const {
    std::lock_guard lock(_mutex);
    return _endRunLoop;
}
