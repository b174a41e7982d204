#include "EventLoop.h"

#include <algorithm>

namespace quorlin {

void EventLoop::post(Task task) {
    {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
    }
    changed_.notify_all();
}

void EventLoop::postAfter(std::chrono::milliseconds delay, Task task) {
    {
        std::lock_guard lock(mutex_);
        delayed_.push_back({Clock::now() + delay, std::move(task)});
    }
    changed_.notify_all();
}

void EventLoop::quit() {
    {
        std::lock_guard lock(mutex_);
        quitRequested_ = true;
    }
    changed_.notify_all();
}

void EventLoop::run() {
    std::unique_lock lock(mutex_);
    while (!quitRequested_) {
        const auto now = Clock::now();
        for (auto it = delayed_.begin(); it != delayed_.end();) {
            if (it->due <= now) {
                ready_.push_back(std::move(it->task));
                it = delayed_.erase(it);
            } else {
                ++it;
            }
        }
        if (!ready_.empty()) {
            Task task = std::move(ready_.front());
            ready_.pop_front();
            lock.unlock();
            task();
            lock.lock();
            continue;
        }
        if (delayed_.empty()) {
            changed_.wait(lock);
        } else {
            const auto next =
                std::min_element(delayed_.begin(), delayed_.end(),
                                 [](const Delayed& a, const Delayed& b) { return a.due < b.due; })
                    ->due;
            changed_.wait_until(lock, next);
        }
    }
    quitRequested_ = false;
}

} // namespace quorlin
