#pragma once

#include "tests/support/LoopbackHttpServer.h"
#include "tests/support/ScriptedReplies.h"

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin::testing {

// An Ollama server on loopback: GET /api/tags lists the installed models, POST /api/chat
// answers a non-streamed chat. Like the real one it answers a model that isn't installed
// with 404 and a malformed chat request with 400, each as {"error": "..."}. Queued replies
// are given, in order, to requests that pass those checks; with none queued, a chat gets
// the content "{}".
class FakeOllamaServer {
public:
    explicit FakeOllamaServer(std::vector<std::string> installedModels);
    ~FakeOllamaServer();
    FakeOllamaServer(const FakeOllamaServer&) = delete;
    FakeOllamaServer& operator=(const FakeOllamaServer&) = delete;

    std::string baseURL() const { return server_.url(""); }

    // A chat reply whose message holds this content.
    void replyWithContent(const std::string& content);
    void replyWith(ScriptedReply reply) { replies_.push(std::move(reply)); }
    static std::string errorBody(const std::string& message);
    // The body of a finished, non-streamed chat; the message is left out when null.
    static std::string chatBody(const nlohmann::json& message);

    std::vector<RecordedRequest> requests() const { return replies_.requests(); }

private:
    void serve(const httplib::Request& request, httplib::Response& response);
    std::string refusal(const httplib::Request& request, int& status) const;

    std::vector<std::string> installedModels_;
    ScriptedReplies replies_;
    LoopbackHttpServer server_;
};

} // namespace quorlin::testing
