#pragma once

#include "runtime/MainLoop.h"

#include <atomic>

// The core's main loop over the running Qt application: tasks are queued to the GUI
// thread's event loop.
class QtMainLoop final : public MainLoop {
public:
    void post(std::function<void()> task) override;
    void runOnMainThreadAndWait(std::function<void()> task) override;
    void terminate(int exitCode) override;
    bool isMainThread() const override;

private:
    std::atomic<bool> _terminated{false};
};
