#include "core/services/OllamaClient.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/Json.h"
#include "core/services/OllamaClientError.h"
#include "tests/support/FakeOllamaServer.h"
#include "tests/support/RecordingHttpTransport.h"
#include "tests/support/ScopedEnvironment.h"

#include <chrono>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

using namespace std::chrono_literals;
using testing::FakeOllamaServer;
using Clock = std::chrono::steady_clock;

const std::string unreachableText = "Unable to reach Ollama. Make sure it's running (systemctl "
                                    "start ollama, or run ollama serve).";

std::string closedServerURL() {
    testing::LoopbackHttpServer server;
    server.start();
    return server.url("");
}

template <typename Call> std::string errorTextOf(Call call) {
    try {
        call();
    } catch (const OllamaClientError& error) {
        return error.what();
    }
    return "(no error)";
}

class OllamaClientTest : public ::testing::Test {
protected:
    OllamaPrompt prompt(std::optional<std::int64_t> maxTokens = std::nullopt,
                        std::optional<double> timeoutSeconds = std::nullopt) const {
        return {.model = "llama3.2:3b",
                .systemPrompt = "Answer in JSON.",
                .userPrompt = "Name the receipt.",
                .maxTokens = maxTokens,
                .timeoutSeconds = timeoutSeconds};
    }

    testing::ScopedEnvironment noProxy_{"no_proxy", "127.0.0.1"};
    testing::ScopedEnvironment noProxyUpper_{"NO_PROXY", "127.0.0.1"};
    FakeOllamaServer server_{{"llama3.2:3b", "qwen2.5:7b"}};
    std::shared_ptr<testing::RecordingHttpTransport> transport_ =
        std::make_shared<testing::RecordingHttpTransport>();
    OllamaClient client_{server_.baseURL(), transport_};
};

TEST_F(OllamaClientTest, SendsANonStreamedJsonChatWithTheLimitOnlyWhenGiven) {
    client_.generateJSON(prompt());
    client_.generateJSON(prompt(256));
    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 2U);
    const auto expected = [](const char* options) {
        return parseJson(std::string(R"({"model":"llama3.2:3b","stream":false,"format":"json",
            "messages":[{"role":"system","content":"Answer in JSON."},
                        {"role":"user","content":"Name the receipt."}])") +
                         options + "}");
    };
    EXPECT_EQ(requests[0].path, "/api/chat");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(parseJson(requests[0].body), expected(""));
    EXPECT_EQ(parseJson(requests[1].body), expected(R"(,"options":{"num_predict":256})"));
}

TEST_F(OllamaClientTest, BaseURLsAreTrimmedAndUnusableOnesRefused) {
    const std::string base = server_.baseURL();
    for (const std::string& usable : {base, base + "/", "  " + base + "//\n", "\t" + base}) {
        EXPECT_EQ(OllamaClient(usable).listModels().size(), 2U) << usable;
    }
    for (const std::string& unusable :
         {std::string(), std::string(" / "), std::string("localhost:11434"),
          std::string("ftp://127.0.0.1:11434"), std::string("http://local host:11434"),
          std::string("http:///api")}) {
        const OllamaClient client(unusable);
        EXPECT_EQ(errorTextOf([&] { client.listModels(); }), "Ollama URL is invalid: " + unusable);
        EXPECT_EQ(errorTextOf([&] { client.generateJSON(prompt()); }),
                  "Ollama URL is invalid: " + unusable);
    }
}

TEST_F(OllamaClientTest, ListsTheInstalledModelsInTheServersOrder) {
    EXPECT_EQ(client_.listModels(),
              (std::vector<OllamaModelInfo>{{"llama3.2:3b"}, {"qwen2.5:7b"}}));
    EXPECT_EQ(server_.requests().at(0).path, "/api/tags");

    FakeOllamaServer empty({});
    EXPECT_TRUE(OllamaClient(empty.baseURL()).listModels().empty());

    server_.replyWith({500, FakeOllamaServer::errorBody("boom")});
    EXPECT_EQ(errorTextOf([this] { client_.listModels(); }),
              R"(Ollama API error (500): {"error":"boom"})");
    server_.replyWith({200, "not json", 0ms, "text/plain"});
    EXPECT_THROW(client_.listModels(), JsonError);
    server_.replyWith({200, R"({"models": [{"model": "x"}]})"});
    EXPECT_THROW(client_.listModels(), DecodingError);
}

TEST_F(OllamaClientTest, ListingFailsAsNotReachableWithinAboutTwoSeconds) {
    server_.replyWith({200, "{}", 10s});
    for (const std::string& base : {closedServerURL(), server_.baseURL()}) {
        const auto started = Clock::now();
        EXPECT_EQ(errorTextOf([&] { OllamaClient(base).listModels(); }), unreachableText);
        EXPECT_LT(Clock::now() - started, 4s) << base;
    }
    // Only the listing turns a failed exchange into notReachable.
    EXPECT_THROW(OllamaClient(closedServerURL()).generateJSON(prompt()), HttpError);
}

struct ChatCase {
    const char* name;
    std::string reply; // the whole body of a 200 reply
    std::optional<WorkflowValueMap> value;
    std::string errorText;
};

std::string withContent(const std::string& content) {
    return FakeOllamaServer::chatBody({{"role", "assistant"}, {"content", content}});
}

TEST_F(OllamaClientTest, DecodesTheContentAsItStands) {
    const WorkflowValueMap named{{"name", "2024-05 Acme.pdf"}, {"total", 12.5}};
    const std::string namedJson = R"({"name":"2024-05 Acme.pdf","total":12.5})";
    const std::string invalid = "Ollama returned content that isn't valid JSON: ";
    const std::vector<ChatCase> cases = {
        {"object", withContent(namedJson), named, ""},
        {"blanks around", withContent("\n  " + namedJson + "\n"), named, ""},
        // JSON format was demanded, so nothing is cut out of fences or prose.
        {"fenced", withContent("```json\n" + namedJson + "\n```"), std::nullopt,
         invalid + "```json\n" + namedJson + "\n```"},
        {"in prose", withContent("Here: " + namedJson), std::nullopt,
         invalid + "Here: " + namedJson},
        {"malformed", withContent(R"({"name": )"), std::nullopt, invalid + R"({"name": )"},
        {"an array", withContent("[1]"), std::nullopt, invalid + "[1]"},
        {"blanks only", withContent("  \n"), std::nullopt, invalid + "  \n"},
        {"empty", withContent(""), std::nullopt, "Ollama returned no content."},
        {"no message", FakeOllamaServer::chatBody(nullptr), std::nullopt,
         "Ollama returned no content."},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        server_.replyWith({200, testCase.reply});
        if (testCase.value) {
            EXPECT_EQ(client_.generateJSON(prompt()), *testCase.value);
        } else {
            EXPECT_EQ(errorTextOf([this] { client_.generateJSON(prompt()); }), testCase.errorText);
        }
    }
    server_.replyWith({200, "<html></html>", 0ms, "text/html"});
    EXPECT_THROW(client_.generateJSON(prompt()), JsonError);
    server_.replyWith({200, R"({"message": {"role": "assistant"}})"});
    EXPECT_THROW(client_.generateJSON(prompt()), DecodingError);
}

TEST_F(OllamaClientTest, AStatusOutsideSuccessIsAnApiErrorWithTheBody) {
    OllamaPrompt missing = prompt();
    missing.model = "mistral:7b";
    EXPECT_EQ(
        errorTextOf([&] { client_.generateJSON(missing); }),
        R"(Ollama API error (404): {"error":"model \"mistral:7b\" not found, try pulling it first"})");
    server_.replyWith({429, "busy", 0ms, "text/plain"});
    EXPECT_EQ(errorTextOf([this] { client_.generateJSON(prompt()); }),
              "Ollama API error (429): busy");
    server_.replyWith({500, "\xc3\x28", 0ms, "text/plain"});
    EXPECT_EQ(errorTextOf([this] { client_.generateJSON(prompt()); }), "Ollama API error (500): ");
}

TEST_F(OllamaClientTest, TimeOutsFollowTheCallAndTheCallersSeconds) {
    client_.listModels();
    const std::vector<std::pair<std::optional<double>, std::chrono::milliseconds>> cases = {
        {std::nullopt, 60s}, {0.0, 1s}, {0.5, 1s}, {3.0, 3s}, {120.0, 120s}};
    for (const auto& [seconds, expected] : cases) {
        client_.generateJSON(prompt(std::nullopt, seconds));
    }
    const auto sent = transport_->sent();
    ASSERT_EQ(sent.size(), cases.size() + 1);
    EXPECT_EQ(sent[0].timeout, 2s);
    for (std::size_t index = 0; index < cases.size(); ++index) {
        EXPECT_EQ(sent[index + 1].timeout, cases[index].second) << "case " << index;
    }

    server_.replyWith({200, withContent("{}"), 10s});
    auto started = Clock::now();
    try {
        client_.generateJSON(prompt(std::nullopt, 0.0));
        ADD_FAILURE() << "no error";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::timedOut);
    }
    EXPECT_LT(Clock::now() - started, 5s);

    server_.replyWith({200, withContent("{}"), 10s});
    std::stop_source stop;
    std::jthread canceller([&stop] {
        std::this_thread::sleep_for(200ms);
        stop.request_stop();
    });
    started = Clock::now();
    try {
        client_.generateJSON(prompt(), stop.get_token());
        ADD_FAILURE() << "no error";
    } catch (const HttpError& error) {
        EXPECT_EQ(error.kind(), HttpError::Kind::cancelled);
    }
    EXPECT_LT(Clock::now() - started, 5s);
}

} // namespace
} // namespace quorlin
