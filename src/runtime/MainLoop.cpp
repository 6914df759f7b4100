#include "runtime/MainLoop.h"

#include <future>

HeadlessMainLoop::HeadlessMainLoop() : _mainThread(std::this_thread::get_id()) {}

int HeadlessMainLoop::run() {
    _mainThread = std::this_thread::get_id();
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock lock(_mutex);
            _wake.wait(lock, [&] { return _terminated || !_tasks.empty(); });
            if (_terminated) {
                _tasks.clear();
                return _exitCode;
            }
            task = std::move(_tasks.front());
            _tasks.pop_front();
        }
        task();
    }
}

void HeadlessMainLoop::post(std::function<void()> task) {
    {
        std::lock_guard lock(_mutex);
        _tasks.push_back(std::move(task));
    }
    _wake.notify_one();
}

void HeadlessMainLoop::runOnMainThreadAndWait(std::function<void()> task) {
    if (isMainThread()) {
        task();
        return;
    }
    // The promise lives in the task: a task dropped unrun releases the waiter as well.
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    {
        std::lock_guard lock(_mutex);
        // A loop that has ended runs nothing more; waiting for it would never return.
        if (_terminated)
            return;
        _tasks.push_back([&task, done] {
            task();
            done->set_value();
        });
    }
    _wake.notify_one();
    finished.wait();
}

void HeadlessMainLoop::terminate(int exitCode) {
    {
        std::lock_guard lock(_mutex);
        _terminated = true;
        _exitCode = exitCode;
    }
    _wake.notify_all();
}

bool HeadlessMainLoop::isMainThread() const {
    return std::this_thread::get_id() == _mainThread;
}
