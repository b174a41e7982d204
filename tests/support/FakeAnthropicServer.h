#pragma once

#include "tests/support/LoopbackHttpServer.h"
#include "tests/support/ScriptedReplies.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin::testing {

// The Anthropic Messages API on loopback: GET /v1/models and POST /v1/messages. Like the
// real service it refuses a wrong x-api-key with 401, a missing anthropic-version or a
// malformed message request with 400, each with Anthropic's error body. Queued replies
// are given, in order, to requests that pass those checks; with none queued, a message
// request gets a text block holding "{}".
class FakeAnthropicServer {
public:
    explicit FakeAnthropicServer(std::string apiKey);
    ~FakeAnthropicServer();
    FakeAnthropicServer(const FakeAnthropicServer&) = delete;
    FakeAnthropicServer& operator=(const FakeAnthropicServer&) = delete;

    std::string baseURL() const { return server_.url(""); }

    // A message reply with these content blocks and usage.
    void replyWithContent(nlohmann::json content, std::int64_t inputTokens = 12,
                          std::int64_t outputTokens = 34);
    // A message reply with one text block.
    void replyWithText(const std::string& text, std::int64_t inputTokens = 12,
                       std::int64_t outputTokens = 34);
    void replyWith(ScriptedReply reply) { replies_.push(std::move(reply)); }
    // Anthropic's error body: {"type":"error","error":{"type":...,"message":...}}.
    static std::string errorBody(const std::string& type, const std::string& message);

    std::vector<RecordedRequest> requests() const { return replies_.requests(); }

private:
    void serve(const httplib::Request& request, httplib::Response& response);
    std::string refusal(const httplib::Request& request, int& status) const;

    std::string apiKey_;
    ScriptedReplies replies_;
    LoopbackHttpServer server_;
};

} // namespace quorlin::testing
