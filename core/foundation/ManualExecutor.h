#pragma once

#include "MainExecutor.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace quorlin {

// A main executor that runs nothing until told to, on the thread that drains it, with a
// clock of its own for delayed tasks. Tests use it so that timing never decides a result.
class ManualExecutor final : public MainExecutor {
public:
    void post(Task task) override;
    void postAfter(std::chrono::milliseconds delay, Task task) override;

    // Runs the next ready task, if any. Returns whether one ran.
    bool runNext();
    // Runs ready tasks until none is left (tasks they post included).
    std::size_t drain();
    // Moves the clock forward, making due delayed tasks ready, then drains.
    std::size_t advanceBy(std::chrono::milliseconds elapsed);
    // Blocks until a task is ready or the wait runs out; for a test that drains while a
    // worker thread posts. Returns whether a task is ready.
    bool waitForTask(std::chrono::milliseconds limit);

    std::size_t pendingCount() const;

private:
    struct Delayed {
        std::chrono::milliseconds due;
        Task task;
    };

    mutable std::mutex mutex_;
    std::condition_variable posted_;
    std::deque<Task> ready_;
    std::vector<Delayed> delayed_;
    std::chrono::milliseconds now_{0};
};

} // namespace quorlin
