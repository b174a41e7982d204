#include "cli/InterruptWatcher.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace quorlin::cli {

InterruptWatcher::InterruptWatcher(std::function<void()> onInterrupt) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    signalFd_ = ::signalfd(-1, &signals_, SFD_CLOEXEC);
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (signalFd_ < 0 || wakeFd_ < 0) {
        // Without them the signals keep their default action: they end the process.
        closeAll();
        return;
    }
    thread_ = std::jthread([this, onInterrupt = std::move(onInterrupt)] {
        std::array<pollfd, 2> watched{{{signalFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}}};
        while (::poll(watched.data(), watched.size(), -1) >= 0 || errno == EINTR) {
            if (watched[1].revents != 0) {
                return;
            }
            signalfd_siginfo taken{};
            if (watched[0].revents != 0 &&
                ::read(signalFd_, &taken, sizeof taken) == sizeof taken) {
                onInterrupt();
            }
        }
    });
}

InterruptWatcher::~InterruptWatcher() {
    if (thread_.joinable()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto ignored = ::write(wakeFd_, &one, sizeof one);
        thread_.join();
    }
    closeAll();
}

void InterruptWatcher::closeAll() {
    for (int* descriptor : {&signalFd_, &wakeFd_}) {
        if (*descriptor >= 0) {
            ::close(*descriptor);
            *descriptor = -1;
        }
    }
    pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
}

} // namespace quorlin::cli
