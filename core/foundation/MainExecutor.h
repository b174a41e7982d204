#pragma once

#include "Cancellation.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stop_token>
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

// Runs task on the main executor and blocks the calling worker until it has run, or until
// stop is requested: then the worker stops waiting and throws CancellationError, so a
// main thread that is busy tearing the run down can never deadlock with it. The task must
// own what it uses (capture by value): it may still run after the worker has gone on.
inline void callOnMain(MainExecutor& executor, std::function<void()> task, std::stop_token stop) {
    struct Rendezvous {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
        std::exception_ptr error;
    };
    auto rendezvous = std::make_shared<Rendezvous>();
    executor.post([rendezvous, task = std::move(task)] {
        std::exception_ptr error;
        try {
            task();
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard lock(rendezvous->mutex);
        rendezvous->done = true;
        rendezvous->error = error;
        rendezvous->changed.notify_all();
    });
    // Registered before the lock is taken: with a stop already requested, the callback
    // runs right here and takes the lock itself.
    std::stop_callback wake(stop, [rendezvous] {
        std::lock_guard inner(rendezvous->mutex);
        rendezvous->changed.notify_all();
    });
    std::unique_lock lock(rendezvous->mutex);
    rendezvous->changed.wait(lock, [&] { return rendezvous->done || stop.stop_requested(); });
    if (!rendezvous->done) {
        throw CancellationError();
    }
    if (rendezvous->error) {
        std::rethrow_exception(rendezvous->error);
    }
}

} // namespace quorlin
