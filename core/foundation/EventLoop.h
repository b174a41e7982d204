#pragma once

#include "MainExecutor.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace quorlin {

// The command line's main thread: run() executes posted tasks in order, and delayed
// ones when due, until quit() is called.
class EventLoop final : public MainExecutor {
public:
    void post(Task task) override;
    void postAfter(std::chrono::milliseconds delay, Task task) override;

    void run();
    // May be called from any thread or from a task.
    void quit();

private:
    using Clock = std::chrono::steady_clock;
    struct Delayed {
        Clock::time_point due;
        Task task;
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> ready_;
    std::vector<Delayed> delayed_;
    bool quitRequested_ = false;
};

} // namespace quorlin
