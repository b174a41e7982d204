#include "core/services/AnthropicClient.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Json.h"
#include "core/services/AnthropicClientError.h"
#include "tests/support/FakeAnthropicServer.h"
#include "tests/support/RecordingHttpTransport.h"
#include "tests/support/ScopedEnvironment.h"

#include <chrono>
#include <functional>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using namespace std::chrono_literals;
using testing::FakeAnthropicServer;
using ::testing::HasSubstr;
using ::testing::Not;
using Clock = std::chrono::steady_clock;

constexpr const char* apiKey = "sk-ant-api03-test-Zq8xW2vR";

// A base URL where nothing listens any more.
std::string closedServerURL() {
    testing::LoopbackHttpServer server;
    server.start();
    return server.url("");
}

class AnthropicClientTest : public ::testing::Test {
protected:
    AnthropicTextResult generate(const std::string& key = apiKey,
                                 std::optional<double> timeoutSeconds = std::nullopt,
                                 const std::stop_token& stopToken = {}) {
        return client_.generateJSON(key,
                                    {.model = "claude-3-7-sonnet-20250219",
                                     .systemPrompt = "Answer in JSON only.",
                                     .userPrompt = "Name the receipt.",
                                     .maxTokens = 512,
                                     .timeoutSeconds = timeoutSeconds},
                                    stopToken);
    }

    // Proxies in the developer's environment must not capture loopback traffic.
    testing::ScopedEnvironment noProxy_{"no_proxy", "127.0.0.1"};
    testing::ScopedEnvironment noProxyUpper_{"NO_PROXY", "127.0.0.1"};
    FakeAnthropicServer server_{apiKey};
    std::shared_ptr<testing::RecordingHttpTransport> transport_ =
        std::make_shared<testing::RecordingHttpTransport>();
    AnthropicClient client_{server_.baseURL() + "/", transport_};
};

TEST_F(AnthropicClientTest, SendsOneUserMessageWithTheKeyAndVersionHeaders) {
    server_.replyWithText(R"({"name":"a.pdf"})");
    const auto result = client_.generateJSON(
        apiKey, {.model = "claude-x", .systemPrompt = "", .userPrompt = "hi", .maxTokens = 7});

    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].path, "/v1/messages");
    EXPECT_EQ(requests[0].header("x-api-key"), apiKey);
    EXPECT_EQ(requests[0].header("anthropic-version"), "2023-06-01");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    // The system prompt goes out even when empty.
    EXPECT_EQ(parseJson(requests[0].body),
              parseJson(R"({"model":"claude-x","max_tokens":7,"system":"",
                            "messages":[{"role":"user","content":"hi"}]})"));
    EXPECT_EQ(result.value, (WorkflowValueMap{{"name", "a.pdf"}}));
}

struct ReplyCase {
    const char* name;
    nlohmann::json content;
    std::optional<WorkflowValueMap> value; // absent: the call fails with errorText
    std::string errorText;
};

const WorkflowValueMap named{{"name", "2024-05 Acme.pdf"}};
const std::string namedJson = R"({"name": "2024-05 Acme.pdf"})";

nlohmann::json textBlock(const std::string& text) {
    return {{"type", "text"}, {"text", text}};
}

const std::vector<ReplyCase> replyCases = {
    {"bare", {textBlock(namedJson)}, named, ""},
    {"fenced with json", {textBlock("```json\n" + namedJson + "\n```")}, named, ""},
    {"fenced without json", {textBlock("  ```\n" + namedJson + "\n```\n")}, named, ""},
    {"in prose",
     {textBlock("Sure! Here it is: " + namedJson + " Hope that {helps}.")},
     std::nullopt,
     "Claude's naming proposal isn't valid JSON: Sure! Here it is: " + namedJson +
         " Hope that {helps}."},
    {"prose around", {textBlock("Here:\n" + namedJson + "\nDone.")}, named, ""},
    {"nested braces",
     {textBlock(R"(Result {"a": {"b": [1, 2.5, true, null]}} end)")},
     WorkflowValueMap{
         {"a",
          WorkflowValue::Object{{"b", WorkflowValue::Array{1, 2.5, true, WorkflowValue::Null{}}}}}},
     ""},
    {"no braces",
     {textBlock("I can't name this file.")},
     std::nullopt,
     "Claude's naming proposal isn't valid JSON: I can't name this file."},
    {"malformed",
     {textBlock("```json\n{\"name\": }\n```")},
     std::nullopt,
     "Claude's naming proposal isn't valid JSON: ```json\n{\"name\": }\n```"},
    {"braces reversed",
     {textBlock("} nothing here {")},
     std::nullopt,
     "Claude's naming proposal isn't valid JSON: } nothing here {"},
    {"an array",
     {textBlock("[1, 2]")},
     std::nullopt,
     "Claude's naming proposal isn't valid JSON: [1, 2]"},
    {"other block first",
     {{{"type", "tool_use"}, {"id", "toolu_1"}, {"name", "x"}, {"input", nlohmann::json::object()}},
      textBlock(namedJson)},
     named,
     ""},
    {"no text block",
     {{{"type", "thinking"}, {"thinking", "hmm"}}},
     std::nullopt,
     "Anthropic API returned no text content."},
    {"no content", nlohmann::json::array(), std::nullopt,
     "Anthropic API returned no text content."},
    {"first text block has no text",
     {{{"type", "text"}}, textBlock(namedJson)},
     std::nullopt,
     "Anthropic API returned no text content."},
};

TEST_F(AnthropicClientTest, TakesTheJsonObjectFromTheFirstTextBlock) {
    for (const auto& testCase : replyCases) {
        SCOPED_TRACE(testCase.name);
        server_.replyWithContent(testCase.content);
        if (testCase.value) {
            EXPECT_EQ(generate().value, *testCase.value);
            continue;
        }
        try {
            generate();
            ADD_FAILURE() << "no error";
        } catch (const AnthropicClientError& error) {
            EXPECT_EQ(error.what(), testCase.errorText);
        }
    }
}

TEST_F(AnthropicClientTest, ReportsTokensAndTheirCostAtFixedPrices) {
    struct Case {
        std::int64_t input, output;
        double cost;
    };
    for (const Case& c : {Case{0, 0, 0.0}, Case{1'000'000, 0, 3.0}, Case{0, 1'000'000, 15.0},
                          Case{1200, 350, 0.0036 + 0.00525}}) {
        server_.replyWithText(namedJson, c.input, c.output);
        const auto result = generate();
        EXPECT_EQ(result.inputTokens, c.input);
        EXPECT_EQ(result.outputTokens, c.output);
        EXPECT_DOUBLE_EQ(result.costUSD, c.cost);
        EXPECT_EQ(result.text, namedJson);
    }
}

TEST_F(AnthropicClientTest, AStatusOutsideSuccessIsAnApiErrorWithTheBody) {
    const std::string overloaded = FakeAnthropicServer::errorBody("overloaded_error", "Overloaded");
    const std::string limited = FakeAnthropicServer::errorBody("rate_limit_error", "Slow down");
    server_.replyWith({429, limited});
    server_.replyWith({500, overloaded});
    server_.replyWith({502, "\xff\xfe not text", 0ms, "text/plain"});
    const std::vector<std::pair<std::string, std::string>> cases = {
        // A refused key is an ordinary API error here, not the key check's case.
        {"wrong-key",
         "Anthropic API error (401): " +
             FakeAnthropicServer::errorBody("authentication_error", "invalid x-api-key")},
        {apiKey, "Anthropic API error (429): " + limited},
        {apiKey, "Anthropic API error (500): " + overloaded},
        {apiKey, "Anthropic API error (502): "},
    };
    for (const auto& [key, text] : cases) {
        try {
            generate(key);
            ADD_FAILURE() << "no error for " << text;
        } catch (const AnthropicClientError& error) {
            EXPECT_EQ(error.kind(), AnthropicClientError::Kind::apiError);
            EXPECT_EQ(error.what(), text);
        }
    }
}

TEST_F(AnthropicClientTest, AReplyThatIsNotTheMessagesFormatPassesItsDecodingErrorThrough) {
    server_.replyWith({200, "<html>gateway</html>", 0ms, "text/html"});
    EXPECT_THROW(generate(), JsonError);
    server_.replyWith({200, R"({"content": [{"type": "text", "text": "{}"}]})"});
    EXPECT_THROW(generate(), DecodingError);
    server_.replyWith(
        {200, R"({"content": "{}", "usage": {"input_tokens": 1, "output_tokens": 1}})"});
    EXPECT_THROW(generate(), DecodingError);
}

TEST_F(AnthropicClientTest, PingTellsAWorkingKeyFromARefusedOneAndAnUnreachableApi) {
    const std::string invalidKey = "API key is invalid or expired — check console.anthropic.com.";
    const std::string unreachable =
        "Unable to reach the Anthropic API. Check your network connection.";
    struct Case {
        std::string key;
        std::optional<testing::ScriptedReply> reply;
        std::string errorText; // empty: success
    };
    const std::vector<Case> cases = {
        {apiKey, std::nullopt, ""},
        {"sk-ant-wrong", std::nullopt, invalidKey},
        {apiKey,
         testing::ScriptedReply(403, FakeAnthropicServer::errorBody("permission_error", "no")),
         invalidKey},
        {apiKey, testing::ScriptedReply(500, "oops", 0ms, "text/plain"),
         "Anthropic API error (500): oops"},
    };
    for (const auto& [key, reply, errorText] : cases) {
        if (reply) {
            server_.replyWith(*reply);
        }
        if (errorText.empty()) {
            EXPECT_NO_THROW(client_.ping(key));
            continue;
        }
        try {
            client_.ping(key);
            ADD_FAILURE() << "no error for " << errorText;
        } catch (const AnthropicClientError& error) {
            EXPECT_EQ(error.what(), errorText);
        }
    }
    const auto requests = server_.requests();
    ASSERT_FALSE(requests.empty());
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].path, "/v1/models");

    const AnthropicClient closed(closedServerURL());
    try {
        closed.ping(apiKey);
        ADD_FAILURE() << "no error";
    } catch (const AnthropicClientError& error) {
        EXPECT_EQ(error.what(), unreachable);
    }
    // Only the key check turns a failed exchange into notReachable.
    EXPECT_THROW(closed.generateJSON(apiKey, {.model = "m", .maxTokens = 1}), HttpError);
}

TEST_F(AnthropicClientTest, TimeOutsFollowTheCallAndTheCallersSeconds) {
    client_.ping(apiKey);
    const std::vector<std::pair<std::optional<double>, std::chrono::milliseconds>> cases = {
        {std::nullopt, 60s}, {0.0, 1s}, {-5.0, 1s}, {0.4, 1s}, {2.5, 2500ms}, {90.0, 90s}};
    for (const auto& [seconds, expected] : cases) {
        generate(apiKey, seconds);
    }
    const auto sent = transport_->sent();
    ASSERT_EQ(sent.size(), cases.size() + 1);
    EXPECT_EQ(sent[0].timeout, 8s);
    for (std::size_t index = 0; index < cases.size(); ++index) {
        EXPECT_EQ(sent[index + 1].timeout, cases[index].second) << "case " << index;
    }
}

TEST_F(AnthropicClientTest, ASlowReplyTimesOutAndAStopRequestEndsTheCallAtOnce) {
    server_.replyWith({200, "{}", 10s});
    auto started = Clock::now();
    try {
        generate(apiKey, 0.0);
        ADD_FAILURE() << "no error";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::timedOut);
    }
    EXPECT_LT(Clock::now() - started, 5s);

    server_.replyWith({200, "{}", 10s});
    std::stop_source stop;
    std::jthread canceller([&stop] {
        std::this_thread::sleep_for(200ms);
        stop.request_stop();
    });
    started = Clock::now();
    try {
        generate(apiKey, std::nullopt, stop.get_token());
        ADD_FAILURE() << "no error";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::cancelled);
    }
    EXPECT_LT(Clock::now() - started, 5s);
}

TEST_F(AnthropicClientTest, NoErrorTextCarriesTheKey) {
    // A server that echoes request headers into its error pages.
    const std::string echo =
        std::string(R"({"error":"bad request","x-api-key":")") + apiKey + "\"}";
    server_.replyWith({400, echo});
    server_.replyWith({500, echo});
    server_.replyWith({200, "{}", 10s});
    const AnthropicClient closed(closedServerURL());
    const std::vector<std::function<void()>> failingCalls = {
        [this] { generate(); },
        [this] { client_.ping(apiKey); },
        [this] { generate(apiKey, 0.0); },
        [&closed] { closed.ping(apiKey); },
        [&closed] { closed.generateJSON(apiKey, {.model = "m", .maxTokens = 1}); },
    };
    for (std::size_t index = 0; index < failingCalls.size(); ++index) {
        try {
            failingCalls[index]();
            ADD_FAILURE() << "call " << index << " did not fail";
        } catch (const std::exception& error) {
            EXPECT_THAT(error.what(), Not(HasSubstr(apiKey))) << "call " << index;
            EXPECT_THAT(error.what(), Not(HasSubstr("Zq8xW2vR"))) << "call " << index;
        }
    }
    EXPECT_EQ(server_.requests().at(0).header("x-api-key"), apiKey);
}

} // namespace
} // namespace quorlin
