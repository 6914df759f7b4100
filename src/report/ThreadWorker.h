#pragma once

#include <any>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class MainLoop;

// Runs one long task on a thread of its own and hands its result to a completion callback
// on the main thread; the worker waits until the callback has returned. The task polls
// cancelled() to stop early.
class ThreadWorker : public std::enable_shared_from_this<ThreadWorker> {
public:
    using Task = std::function<std::any(const std::any& argument, ThreadWorker& worker)>;
    using DidEnd = std::function<void(const std::any& result)>;

    // Starts the task on a new thread. targetName and selectorName name the task for the
    // log; an empty task logs that the target does not respond and starts nothing. The
    // caller keeps the worker for as long as it may cancel it.
    static std::shared_ptr<ThreadWorker> workOn(MainLoop& loop, const std::string& targetName,
                                                const std::string& selectorName, Task task,
                                                std::any argument, DidEnd didEnd = {});

    ThreadWorker(MainLoop& loop, Task task, std::any argument, DidEnd didEnd);
    ~ThreadWorker();
    ThreadWorker(const ThreadWorker&) = delete;
    ThreadWorker& operator=(const ThreadWorker&) = delete;

    // Sets the cancellation mark; it is never cleared.
    void markAsCancelled();
    bool cancelled() const;

    // Blocks until the task and its callback have finished (for owners that must not
    // outlive the thread, and for tests).
    void waitUntilFinished();
    bool finished() const;

private:
    void startThread();
    void runPrimaryTask();

    MainLoop& _loop;
    Task _task;
    std::any _argument;
    DidEnd _didEndSelector;
    std::atomic<int> _cancelled{0};
    mutable std::mutex _mutex;
    std::condition_variable _ended;
    bool _endRunLoop = false;
};
