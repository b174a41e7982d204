#include "tests/support/FakeAnthropicServer.h"

namespace quorlin::testing {

namespace {

std::string messageBody(nlohmann::json content, std::int64_t inputTokens,
                        std::int64_t outputTokens) {
    return nlohmann::json{
        {"id", "msg_01XFDUDYJgAACzvnptvVoYEL"},
        {"type", "message"},
        {"role", "assistant"},
        {"model", "claude-3-7-sonnet-20250219"},
        {"content", std::move(content)},
        {"stop_reason", "end_turn"},
        {"stop_sequence", nullptr},
        {"usage", {{"input_tokens", inputTokens}, {"output_tokens", outputTokens}}},
    }
        .dump();
}

std::string modelsBody() {
    return nlohmann::json{
        {"data",
         {{{"type", "model"},
           {"id", "claude-3-7-sonnet-20250219"},
           {"display_name", "Claude Sonnet 3.7"},
           {"created_at", "2025-02-19T00:00:00Z"}}}},
        {"has_more", false},
        {"first_id", "claude-3-7-sonnet-20250219"},
        {"last_id", "claude-3-7-sonnet-20250219"},
    }
        .dump();
}

bool isMessageRequest(const nlohmann::json& body) {
    return body.is_object() && body.contains("model") && body["model"].is_string() &&
           body.contains("max_tokens") && body["max_tokens"].is_number_integer() &&
           body.contains("messages") && body["messages"].is_array();
}

} // namespace

FakeAnthropicServer::FakeAnthropicServer(std::string apiKey) : apiKey_(std::move(apiKey)) {
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        serve(request, response);
    };
    server_.server().Get("/v1/models", handler);
    server_.server().Post("/v1/messages", handler);
    server_.start();
}

FakeAnthropicServer::~FakeAnthropicServer() {
    replies_.close();
    server_.stop();
}

void FakeAnthropicServer::replyWithContent(nlohmann::json content, std::int64_t inputTokens,
                                           std::int64_t outputTokens) {
    replies_.push({200, messageBody(std::move(content), inputTokens, outputTokens)});
}

void FakeAnthropicServer::replyWithText(const std::string& text, std::int64_t inputTokens,
                                        std::int64_t outputTokens) {
    replyWithContent({{{"type", "text"}, {"text", text}}}, inputTokens, outputTokens);
}

std::string FakeAnthropicServer::errorBody(const std::string& type, const std::string& message) {
    return nlohmann::json{{"type", "error"}, {"error", {{"type", type}, {"message", message}}}}
        .dump();
}

std::string FakeAnthropicServer::refusal(const httplib::Request& request, int& status) const {
    status = 401;
    if (request.get_header_value("x-api-key") != apiKey_) {
        return errorBody("authentication_error", "invalid x-api-key");
    }
    status = 400;
    if (request.get_header_value("anthropic-version").empty()) {
        return errorBody("invalid_request_error", "anthropic-version: header is required");
    }
    if (request.method == "POST" &&
        (request.get_header_value("Content-Type") != "application/json" ||
         !isMessageRequest(nlohmann::json::parse(request.body, nullptr, false)))) {
        return errorBody("invalid_request_error", "the request body is not a message request");
    }
    return {};
}

void FakeAnthropicServer::serve(const httplib::Request& request, httplib::Response& response) {
    replies_.record(request);
    int status = 200;
    if (std::string body = refusal(request, status); !body.empty()) {
        replies_.answer({status, std::move(body)}, response);
        return;
    }
    if (auto scripted = replies_.next()) {
        replies_.answer(*scripted, response);
        return;
    }
    const bool models = request.method == "GET";
    replies_.answer(
        {200, models ? modelsBody() : messageBody({{{"type", "text"}, {"text", "{}"}}}, 1, 1)},
        response);
}

} // namespace quorlin::testing
