#pragma once

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include <httplib.h>

namespace quorlin::testing {

// A real HTTP server on 127.0.0.1 and a free port, serving on a thread of its own.
// Register handlers on server() first, then start(). Handlers that wait must stop
// waiting by themselves: stopping the server waits for them.
class LoopbackHttpServer {
public:
    LoopbackHttpServer() = default;
    ~LoopbackHttpServer() { stop(); }
    LoopbackHttpServer(const LoopbackHttpServer&) = delete;
    LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

    httplib::Server& server() { return server_; }

    void start() {
        // A client that hangs up mid-reply must not kill the test with SIGPIPE.
        std::signal(SIGPIPE, SIG_IGN);
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0) {
            throw std::runtime_error("the loopback HTTP server could not bind a port");
        }
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    void stop() {
        if (thread_.joinable()) {
            server_.stop();
            thread_.join();
        }
    }

    int port() const { return port_; }
    std::string url(std::string_view path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }

private:
    httplib::Server server_;
    int port_ = -1;
    std::thread thread_;
};

} // namespace quorlin::testing
