#include "ManualExecutor.h"

#include <algorithm>

namespace quorlin {

void ManualExecutor::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }
    posted_.notify_all();
}

void ManualExecutor::postAfter(std::chrono::milliseconds delay, Task task) {
    std::lock_guard lock(mutex_);
    delayed_.push_back({now_ + delay, std::move(task)});
}

bool ManualExecutor::runNext() {
    Task task;
    {
        std::lock_guard lock(mutex_);
        if (ready_.empty()) {
            return false;
        }
        task = std::move(ready_.front());
        ready_.pop_front();
    }
    task();
    return true;
}

std::size_t ManualExecutor::drain() {
    std::size_t count = 0;
    while (runNext()) {
        ++count;
    }
    return count;
}

std::size_t ManualExecutor::advanceBy(std::chrono::milliseconds elapsed) {
    {
        std::lock_guard lock(mutex_);
        now_ += elapsed;
        // Due tasks become ready in the order of their due time, then of posting.
        std::stable_sort(delayed_.begin(), delayed_.end(),
                         [](const Delayed& a, const Delayed& b) { return a.due < b.due; });
        auto firstNotDue = std::find_if(delayed_.begin(), delayed_.end(),
                                        [this](const Delayed& item) { return item.due > now_; });
        for (auto it = delayed_.begin(); it != firstNotDue; ++it) {
            ready_.push_back(std::move(it->task));
        }
        delayed_.erase(delayed_.begin(), firstNotDue);
    }
    return drain();
}

bool ManualExecutor::waitForTask(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return posted_.wait_for(lock, limit, [this] { return !ready_.empty(); });
}

std::size_t ManualExecutor::pendingCount() const {
    std::lock_guard lock(mutex_);
    return ready_.size() + delayed_.size();
}

} // namespace quorlin
