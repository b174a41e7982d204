#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <type_traits>

namespace quorlin {

// The thread that owns application state. In the desktop app it is Qt's event loop, in
// the command line an EventLoop, in tests a ManualExecutor drained by hand.
class MainExecutor {
public:
    using Task = std::function<void()>;

    virtual ~MainExecutor() = default;

    // Both may be called from any thread; tasks run on the main thread in order.
    virtual void post(Task task) = 0;
    virtual void postAfter(std::chrono::milliseconds delay, Task task) = 0;
};

// Runs fn on the main executor and blocks the calling (worker) thread until it has run,
// handing back its result or its exception. Must not be called on the main thread.
template <typename Function>
auto callOnMain(MainExecutor& executor, Function fn) -> std::invoke_result_t<Function> {
    using Result = std::invoke_result_t<Function>;
    std::packaged_task<Result()> task(std::move(fn));
    auto future = task.get_future();
    auto shared = std::make_shared<std::packaged_task<Result()>>(std::move(task));
    executor.post([shared] { (*shared)(); });
    return future.get();
}

} // namespace quorlin
