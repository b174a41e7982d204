#include "tests/support/FakeOllamaServer.h"

#include <algorithm>

#include <nlohmann/json.hpp>

namespace quorlin::testing {

namespace {

std::string tagsBody(const std::vector<std::string>& models) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& name : models) {
        list.push_back(
            {{"name", name},
             {"model", name},
             {"modified_at", "2025-05-01T10:00:00.000000+02:00"},
             {"size", 2019393189},
             {"digest", "a80c4f17acd55265feec403c7aef86be0c25983ab279d83f3bcd3abbcb5b8b72"},
             {"details", {{"format", "gguf"}, {"family", "llama"}}}});
    }
    return nlohmann::json{{"models", list}}.dump();
}

} // namespace

FakeOllamaServer::FakeOllamaServer(std::vector<std::string> installedModels)
    : installedModels_(std::move(installedModels)) {
    const auto handler = [this](const httplib::Request& request, httplib::Response& response) {
        serve(request, response);
    };
    server_.server().Get("/api/tags", handler);
    server_.server().Post("/api/chat", handler);
    server_.start();
}

FakeOllamaServer::~FakeOllamaServer() {
    replies_.close();
    server_.stop();
}

std::string FakeOllamaServer::errorBody(const std::string& message) {
    return nlohmann::json{{"error", message}}.dump();
}

std::string FakeOllamaServer::chatBody(const nlohmann::json& message) {
    nlohmann::json body = {{"model", "llama3.2:3b"},
                           {"created_at", "2025-05-01T10:00:00.000000Z"},
                           {"done_reason", "stop"},
                           {"done", true},
                           {"total_duration", 4883583458},
                           {"prompt_eval_count", 26},
                           {"eval_count", 298}};
    if (!message.is_null()) {
        body["message"] = message;
    }
    return body.dump();
}

void FakeOllamaServer::replyWithContent(const std::string& content) {
    replies_.push({200, chatBody({{"role", "assistant"}, {"content", content}})});
}

std::string FakeOllamaServer::refusal(const httplib::Request& request, int& status) const {
    if (request.method != "POST") {
        return {};
    }
    status = 400;
    const auto body = nlohmann::json::parse(request.body, nullptr, false);
    if (!body.is_object() || !body.contains("model") || !body["model"].is_string() ||
        !body.contains("messages") || !body["messages"].is_array()) {
        return errorBody("invalid chat request");
    }
    const auto model = body["model"].get<std::string>();
    status = 404;
    if (std::ranges::find(installedModels_, model) == installedModels_.end()) {
        return errorBody("model \"" + model + "\" not found, try pulling it first");
    }
    return {};
}

void FakeOllamaServer::serve(const httplib::Request& request, httplib::Response& response) {
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
    replies_.answer({200, request.method == "GET"
                              ? tagsBody(installedModels_)
                              : chatBody({{"role", "assistant"}, {"content", "{}"}})},
                    response);
}

} // namespace quorlin::testing
