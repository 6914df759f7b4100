#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

// The main thread's event loop as the core sees it. The front ends supply one: the Qt
// front end its application loop, the headless front end HeadlessMainLoop.
class MainLoop {
public:
    virtual ~MainLoop() = default;

    // Queues the task to run on the main thread; returns at once.
    virtual void post(std::function<void()> task) = 0;
    // Runs the task on the main thread and returns when it has returned. Called on the main
    // thread itself, it runs the task directly; after terminate() it runs nothing.
    virtual void runOnMainThreadAndWait(std::function<void()> task) = 0;
    // Ends the loop after the current task; run() then returns the code.
    virtual void terminate(int exitCode) = 0;
    virtual bool isMainThread() const = 0;
};

// A plain event loop on the thread that calls run(); needs no display and no toolkit.
class HeadlessMainLoop final : public MainLoop {
public:
    HeadlessMainLoop();

    // Runs queued tasks until terminate(); returns the code given to terminate.
    int run();

    void post(std::function<void()> task) override;
    void runOnMainThreadAndWait(std::function<void()> task) override;
    void terminate(int exitCode) override;
    bool isMainThread() const override;

private:
    // Set by run(), which may start after a worker thread already asks.
    std::atomic<std::thread::id> _mainThread;
    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<std::function<void()>> _tasks;
    bool _terminated = false;
    int _exitCode = 0;
};
