#pragma once

#include <csignal>
#include <functional>
#include <thread>

namespace quorlin::cli {

// Turns Ctrl-C (and SIGTERM) into a cancel of the run. The signals are blocked in every
// thread and read from a signalfd, so no handler runs in signal context; an eventfd wakes
// the watcher at once when the run is over, so leaving waits for nothing.
class InterruptWatcher {
public:
    explicit InterruptWatcher(std::function<void()> onInterrupt);
    ~InterruptWatcher();
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

private:
    void closeAll();

    sigset_t signals_{};
    int signalFd_ = -1;
    int wakeFd_ = -1;
    std::jthread thread_;
};

} // namespace quorlin::cli
