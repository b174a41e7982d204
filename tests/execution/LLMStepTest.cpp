#include "core/definitions/WorkflowLoader.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ApprovalRun.h"
#include "core/execution/DefaultScriptRunner.h"
#include "core/execution/GenericScriptWorkflowService.h"
#include "core/execution/LLMOutput.h"
#include "core/execution/LLMPrompt.h"
#include "core/execution/LLMRoute.h"
#include "core/execution/LLMSteps.h"
#include "core/execution/StandardStepHandlers.h"
#include "core/foundation/FileError.h"
#include "core/foundation/ManualExecutor.h"
#include "tests/support/FakeAnthropicServer.h"
#include "tests/support/FakeOllamaServer.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/WorkflowFixture.h"

#include <chrono>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* apiKey = "sk-ant-test-key";
// 12 input and 34 output tokens, the fake's default usage, at the fixed prices.
constexpr double fakeReplyCost = (12 * 3.0 + 34 * 15.0) / 1e6;

WorkflowValueMap objectMap(const std::string& text) {
    return *workflowValueFromJson(json::parse(text)).object();
}

FlowStep stepWithConfig(const std::string& configJSON) {
    FlowStep step;
    step.id = "ask";
    step.type = "llm-generate-structured";
    step.config = objectMap(configJSON);
    return step;
}

TEST(LLMRouteTest, RoutesNameAModelOfOneProvider) {
    AppSettings settings;
    settings.localLLMModel = " llama3 ";
    AppSettings noLocalModel;
    noLocalModel.localLLMModel = "  ";
    struct Case {
        std::string route;
        const AppSettings& settings;
        std::optional<std::string> ollama;
        std::optional<std::string> anthropic;
    };
    const std::vector<Case> cases{
        {"ollama:qwen2.5:7b", settings, "qwen2.5:7b", std::nullopt},
        {"ollama: mistral ", settings, "mistral", std::nullopt},
        {"ollama:", settings, std::nullopt, std::nullopt},
        {"ollama", settings, "llama3", std::nullopt},
        {"local", settings, "llama3", std::nullopt},
        {"local-llm", settings, "llama3", std::nullopt},
        {"local", noLocalModel, std::nullopt, std::nullopt},
        {"claude-sonnet", settings, std::nullopt, "claude-3-7-sonnet-20250219"},
        {"anthropic: claude-opus-4 ", settings, std::nullopt, "claude-opus-4"},
        {"anthropic:", settings, std::nullopt, std::nullopt},
        {"claude-3-5-haiku-latest", settings, std::nullopt, "claude-3-5-haiku-latest"},
        {"gpt-4o", settings, std::nullopt, std::nullopt},
        {"Ollama:qwen", settings, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ollamaModel(c.route, c.settings), c.ollama) << c.route;
        EXPECT_EQ(anthropicModel(c.route), c.anthropic) << c.route;
    }
}

TEST(LLMPromptTest, RelativePathsStayInsideTheBundle) {
    for (const std::string good : {"prompts/ask.md", " ask.md ", "a/b/c.txt", "..hidden/x"}) {
        EXPECT_NO_THROW(validateRelativeWorkflowPath(good)) << good;
    }
    EXPECT_EQ(validateRelativeWorkflowPath(" prompts/ask.md\n"), "prompts/ask.md");
    for (const std::string bad : {"", "  ", "/etc/passwd", "~/x", "a\\b", "a//b", "a/", "./a",
                                  "a/./b", "../a", "a/../../b"}) {
        try {
            validateRelativeWorkflowPath(bad);
            ADD_FAILURE() << "accepted " << bad;
        } catch (const WorkflowLoaderError& error) {
            EXPECT_EQ(error.what(), "Invalid bundled path: " + bad);
        }
    }
}

TEST(LLMPromptTest, BundledTextRefusesLinksAndMissingFiles) {
    testing::WorkflowFixture fixture;
    const auto file = fixture.writeBundleFile("demo", "prompts/ask.md", "Hello {{name}}");
    const auto bundle = file.parent_path().parent_path();
    std::filesystem::create_symlink(file, bundle / "prompts/link.md");
    fixture.writeBundleFile("demo", "prompts/latin1.md", "caf\xe9");

    EXPECT_EQ(bundledText("prompts/ask.md", bundle), "Hello {{name}}");
    const std::vector<std::pair<std::string, std::string>> refusals{
        {"prompts/link.md", "Invalid bundled prompt symlink: prompts/link.md"},
        {"prompts/none.md", "Missing bundled prompt path: prompts/none.md"},
        {"../demo/prompts/ask.md", "Invalid bundled path: ../demo/prompts/ask.md"},
    };
    for (const auto& [path, words] : refusals) {
        try {
            bundledText(path, bundle);
            ADD_FAILURE() << "read " << path;
        } catch (const WorkflowLoaderError& error) {
            EXPECT_EQ(error.what(), words);
        }
    }
    EXPECT_THROW(bundledText("prompts/latin1.md", bundle), FileError);
}

TEST(LLMPromptTest, RendersContextValuesAsJson) {
    const auto context = objectMap(R"({"name": "Ada", "count": 3, "tags": ["a"]})");
    EXPECT_EQ(renderPromptTemplate("{{name}} / {{ name }} / {{count}} / {{ missing }}", context),
              R"("Ada" / "Ada" / 3 / {{ missing }})");
    EXPECT_EQ(renderPromptTemplate("{{tags}}", context), "[\n  \"a\"\n]");
    EXPECT_EQ(json::parse(renderPromptTemplate("{{ context }}", context)),
              json::parse(R"({"count": 3, "name": "Ada", "tags": ["a"]})"));
}

TEST(LLMOutputTest, StringListsFromTextOrArrays) {
    const std::vector<std::pair<WorkflowValue, std::vector<std::string>>> cases{
        {WorkflowValue("a, b,,c ,"), {"a", "b", "c"}},
        {WorkflowValue(WorkflowValue::Array{" x ", 4, "", "y"}), {"x", "y"}},
        {WorkflowValue(7), {}},
    };
    for (const auto& [value, expected] : cases) {
        EXPECT_EQ(stringList(&value), expected);
    }
    EXPECT_TRUE(stringList(nullptr).empty());
}

TEST(LLMOutputTest, ShapesTheModelObjectByTheStepConfig) {
    const auto model = objectMap(R"({"title": "from model", "mode": "model"})");
    const auto context = objectMap(R"({"date": "2024-05-01", "items": [1, 2, 3], "n": 5})");

    EXPECT_EQ(shapedLLMOutput(model, context, stepWithConfig("{}")), model);

    const auto wrapped = shapedLLMOutput(
        model, context,
        stepWithConfig(R"({"result_key": " proposals ", "passthrough_context_keys": "date, gone",
                           "static_outputs": {"mode": "static"},
                           "count_outputs": {"item_count": "items", "bad": "n"}})"));
    EXPECT_EQ(wrapped, objectMap(R"({"proposals": {"title": "from model", "mode": "model"},
                                     "date": "2024-05-01", "mode": "static", "item_count": 3})"));

    const auto flat = shapedLLMOutput(model, context,
                                      stepWithConfig(R"({"static_outputs": {"mode": "static"}})"));
    EXPECT_EQ(flat.at("mode"), WorkflowValue("static"));
    EXPECT_EQ(flat.at("title"), WorkflowValue("from model"));
}

TEST(LLMOutputTest, NewsBriefingTakesTheFirstEightArticles) {
    json articles = json::array();
    for (int index = 0; index < 9; ++index) {
        articles.push_back({{"title", "T" + std::to_string(index)}, {"section", "Tech"}});
    }
    articles[0] = {{"title", "First"}, {"title_zh", "第一"}, {"summary", "Short."}};
    const auto context = objectMap(json{{"date", "2024-05-01"}, {"articles", articles}}.dump());

    const auto briefing = fallbackNewsBriefing(
        context, stepWithConfig(R"({"fallback_headline_prefix": "Markets"})"), "no key");
    EXPECT_EQ(briefing.at("headline"), WorkflowValue("2024-05-01 Markets daily briefing"));
    EXPECT_EQ(briefing.at("executive_summary"),
              WorkflowValue("App LLM provider isn't configured or failed to respond, so falling "
                            "back to a rule-based summary. Reason: no key"));
    const auto& points = *briefing.at("key_points").array();
    ASSERT_EQ(points.size(), 8u);
    EXPECT_EQ(points[0], WorkflowValue("News: First"));
    EXPECT_EQ(points[7], WorkflowValue("Tech: T7"));
    const auto& entries = *briefing.at("articles").array();
    ASSERT_EQ(entries.size(), 8u);
    EXPECT_EQ(entries[0], WorkflowValue(objectMap(
                              R"({"title": "First", "title_zh": "第一", "one_line": "Short."})")));
    EXPECT_EQ(entries[1], WorkflowValue(objectMap(R"({"title": "T1", "title_zh": "T1"})")));
    EXPECT_EQ(briefing.at("market_implications"), WorkflowValue(WorkflowValue::Array{}));
    EXPECT_FALSE(briefing.contains("risk_watch"));

    const auto withRisk =
        fallbackNewsBriefing({}, stepWithConfig(R"({"include_risk_watch": true})"), "r");
    EXPECT_TRUE(withRisk.contains("risk_watch"));
    EXPECT_THAT(*withRisk.at("headline").string(), HasSubstr(" News daily briefing"));
}

TEST(LLMOutputTest, RunCostIsTheFirstReadableStepCost) {
    const std::vector<std::pair<WorkflowValue, double>> cases{{WorkflowValue(0.25), 0.25},
                                                              {WorkflowValue(2), 2.0},
                                                              {WorkflowValue("0.5"), 0.5},
                                                              {WorkflowValue("cheap"), 0.0},
                                                              {WorkflowValue(true), 0.0}};
    for (const auto& [cost, expected] : cases) {
        EXPECT_DOUBLE_EQ(llmCostUSD({{"a", {{"other", 1}}}, {"b", {{"llm_cost_usd", cost}}}}),
                         expected);
    }
    EXPECT_EQ(llmCostUSD({}), 0.0);
}

// A workflow of one LLM step (optionally behind others), run end to end against fake
// Anthropic and Ollama servers on loopback.
class LLMStepRunTest : public ::testing::Test {
protected:
    LLMStepRunTest() {
        fixture.writeBundleFile("demo", "prompts/ask.md",
                                "Date: {{ date }}\nArticles: {{articles}}\n");
        request.settings.anthropicAPIKey = apiKey;
        request.settings.ollamaURL = ollama.baseURL();
    }

    std::shared_ptr<DefaultScriptRunner> runner() const {
        return std::make_shared<DefaultScriptRunner>(fixture.locator(), [](ScriptRuntime runtime) {
            return testing::systemInterpreter(rawValue(runtime));
        });
    }

    GenericScriptWorkflowService service() {
        return {WorkflowLoader(fixture.locator()),
                standardStepHandlers({runner(), fixture.paths(),
                                      std::make_shared<AnthropicClient>(anthropic.baseURL())}),
                fixture.paths(), mainExecutor};
    }

    // config: extra lines under the step's config, each as "key: value".
    void writeFlow(const std::vector<std::string>& config, const std::string& tail = "") {
        std::string yaml = "flow:\n  id: demo\n  name: Demo\n  version: '1'\n  triggers: []\n"
                           "  steps:\n    - id: ask\n      name: Ask\n"
                           "      type: llm-generate-structured\n      inputs:\n"
                           "        context:\n          date: '2024-05-01'\n"
                           "          articles: [{title: Rates, section: Markets}]\n"
                           "      config:\n";
        for (const auto& line : config) {
            yaml += "        " + line + "\n";
        }
        fixture.writeBundleFile("demo", "flow.yaml", yaml + tail);
    }

    template <typename Work> auto onWorker(Work work) {
        auto future = std::async(std::launch::async, work);
        while (future.wait_for(0ms) != std::future_status::ready) {
            if (mainExecutor.waitForTask(5ms)) {
                mainExecutor.drain();
            }
        }
        mainExecutor.drain();
        return future.get();
    }

    GenericScriptWorkflowRunResult run() {
        auto driver = service();
        return onWorker([&] {
            return driver.run(WorkflowLoader(fixture.locator()).loadRunnableWorkflow("demo"),
                              request);
        });
    }

    // The outputs the step left, as JSON.
    json stepOutput() { return json::parse(*run().stepRecords.at(0).outputJSON); }

    std::string failureText() {
        try {
            run();
        } catch (const GenericScriptWorkflowFailure& failure) {
            return failure.what();
        }
        return "<no failure>";
    }

    void routeStepTo(const std::string& route) {
        auto& routing = request.clientProfile.clientProfile.llmRouting;
        routing = routing.settingStepProvider("demo", "ask", route);
    }

    testing::ScopedEnvironment noProxy{"no_proxy", "127.0.0.1"};
    testing::ScopedEnvironment noProxyUpper{"NO_PROXY", "127.0.0.1"};
    testing::WorkflowFixture fixture;
    testing::FakeAnthropicServer anthropic{apiKey};
    testing::FakeOllamaServer ollama{{"qwen2.5:7b"}};
    ManualExecutor mainExecutor;
    WorkflowRunRequest request;
};

TEST_F(LLMStepRunTest, AsksAnthropicWithTheRenderedPromptAndRecordsTheCost) {
    writeFlow({"prompt_template: prompts/ask.md", "system_prompt: '  Be brief.  '",
               "max_tokens: '300'", "timeout_seconds: '20'"});
    anthropic.replyWithText(R"(```json
{"title": "Rates hold"}
```)");
    const auto result = run();

    const auto sent = json::parse(anthropic.requests().at(0).body);
    EXPECT_EQ(sent["model"], "claude-3-7-sonnet-20250219");
    EXPECT_EQ(sent["system"], "Be brief.");
    EXPECT_EQ(sent["max_tokens"], 300);
    EXPECT_EQ(sent["messages"][0]["content"],
              "Date: \"2024-05-01\"\nArticles: [\n  {\n    \"section\": \"Markets\",\n    "
              "\"title\": \"Rates\"\n  }\n]\n");

    const auto output = json::parse(*result.stepRecords.at(0).outputJSON);
    EXPECT_EQ(output["title"], "Rates hold");
    EXPECT_DOUBLE_EQ(output["llm_cost_usd"].get<double>(), fakeReplyCost);
    EXPECT_FALSE(output.contains("llm_fallback_used"));
    const auto audit = json::parse(*result.stepRecords.at(0).inputJSON);
    EXPECT_EQ(audit, json::parse(R"({"context": {"date": "2024-05-01",
                                     "articles": [{"title": "Rates", "section": "Markets"}]},
                                     "llm_role": "naming_proposal", "llm_route": "claude-sonnet",
                                     "prompt_template": "prompts/ask.md", "max_tokens": 300,
                                     "timeout_seconds": 20.0})"));
}

TEST_F(LLMStepRunTest, AsksOllamaAtTheSettingsAddressForNothing) {
    writeFlow({"prompt_template: prompts/ask.md", "result_key: proposals",
               "static_outputs: {kind: briefing}"});
    routeStepTo("ollama:qwen2.5:7b");
    ollama.replyWithContent(R"({"title": "Local", "kind": "model"})");
    const auto output = stepOutput();

    const auto sent = json::parse(ollama.requests().at(0).body);
    EXPECT_EQ(sent["model"], "qwen2.5:7b");
    EXPECT_EQ(sent["options"]["num_predict"], 2048);
    EXPECT_EQ(sent["messages"][0]["content"], "Return valid JSON only.");
    EXPECT_TRUE(anthropic.requests().empty());
    EXPECT_EQ(output, json::parse(R"({"proposals": {"title": "Local", "kind": "model"},
                                      "kind": "briefing", "llm_cost_usd": 0.0})"));
}

TEST_F(LLMStepRunTest, FailuresWithoutAFallbackNameTheirCause) {
    struct Case {
        std::string name;
        std::vector<std::string> config;
        std::function<void()> arrange;
        std::string words;
    };
    const auto noop = [] {};
    const std::vector<Case> cases{
        {"no template",
         {"fallback_strategy: news_briefing_summary"},
         noop,
         "LLM step is missing prompt_template: ask"},
        {"no prompt file",
         {"prompt_template: prompts/none.md", "fallback_strategy: news_briefing_summary"},
         noop,
         "Missing bundled prompt path: prompts/none.md"},
        {"empty route",
         {"prompt_template: prompts/ask.md", "llm_role: triage"},
         [this] { request.clientProfile.clientProfile.llmRouting = LLMRouting(" ", " "); },
         "LLM provider not configured: LLM route is empty"},
        {"empty URL",
         {"prompt_template: prompts/ask.md"},
         [this] {
             routeStepTo("local");
             request.settings.ollamaURL = " ";
         },
         "LLM provider not configured: Ollama URL is empty"},
        {"empty key",
         {"prompt_template: prompts/ask.md"},
         [this] { request.settings.anthropicAPIKey = "  "; },
         "LLM provider not configured: Anthropic API key is empty"},
        {"unknown route",
         {"prompt_template: prompts/ask.md"},
         [this] { routeStepTo("ollama:"); },
         "Unsupported LLM route: ollama:"},
        {"client error",
         {"prompt_template: prompts/ask.md"},
         [this] { anthropic.replyWithText("no json here"); },
         "Claude's naming proposal isn't valid JSON: no json here"},
        {"unknown strategy",
         {"prompt_template: prompts/ask.md", "fallback_strategy: ' retry '"},
         [this] { routeStepTo("gpt-4o"); },
         "Unsupported LLM fallback_strategy: retry"},
        {"no fallback script",
         {"prompt_template: prompts/ask.md", "fallback_strategy: bundled_script"},
         [this] { routeStepTo("gpt-4o"); },
         "LLM step is missing fallback_script: ask"},
        {"bad fallback runtime",
         {"prompt_template: prompts/ask.md", "fallback_strategy: bundled_script",
          "fallback_script: fallback.rb", "fallback_runtime: ruby"},
         [this] { routeStepTo("gpt-4o"); },
         "Unsupported fallback runtime ruby for step ask"},
    };
    for (const auto& c : cases) {
        request = {};
        request.settings.anthropicAPIKey = apiKey;
        request.settings.ollamaURL = ollama.baseURL();
        writeFlow(c.config);
        c.arrange();
        EXPECT_EQ(failureText(), c.words) << c.name;
    }
}

TEST_F(LLMStepRunTest, UnconfiguredProviderFallsBackToTheNewsSummary) {
    writeFlow({"prompt_template: prompts/ask.md", "fallback_strategy: news_briefing_summary",
               "passthrough_context_keys: [date]"});
    request.settings.anthropicAPIKey = "";
    const auto output = stepOutput();
    EXPECT_EQ(output["headline"], "2024-05-01 News daily briefing");
    EXPECT_EQ(output["executive_summary"],
              "App LLM provider isn't configured or failed to respond, so falling back to a "
              "rule-based summary. Reason: LLM provider not configured: Anthropic API key is "
              "empty");
    EXPECT_EQ(output["key_points"], json::parse(R"(["Markets: Rates"])"));
    EXPECT_EQ(output["date"], "2024-05-01");
    EXPECT_EQ(output["llm_fallback_used"], true);
    EXPECT_EQ(output["llm_cost_usd"], 0.0);
    EXPECT_TRUE(anthropic.requests().empty());
}

TEST_F(LLMStepRunTest, FailedCallFallsBackToTheBundledScript) {
    fixture.writeBundleFile("demo", "fallback/brief.py",
                            "import json, sys\n"
                            "data = json.load(sys.stdin)\n"
                            "print(json.dumps({'outputs': {\n"
                            "  'keys': sorted(data['inputs']),\n"
                            "  'reason': data['inputs']['reason'],\n"
                            "  'date': data['inputs']['context']['date'],\n"
                            "  'step': data['context']['step_id'],\n"
                            "  'llm_cost_usd': 0.01}}))\n");
    fixture.writeBundleFile("demo", "fallback/silent.py", "print('not json')\n");
    writeFlow({"prompt_template: prompts/ask.md", "fallback_strategy: bundled_script",
               "fallback_script: ' fallback/brief.py '", "fallback_timeout_seconds: '20'"});
    anthropic.replyWith({500, testing::FakeAnthropicServer::errorBody("api_error", "down")});
    const auto output = stepOutput();
    EXPECT_EQ(output["keys"], json::parse(R"(["context", "reason"])"));
    EXPECT_THAT(output["reason"].get<std::string>(), HasSubstr("Anthropic API error (500)"));
    EXPECT_EQ(output["date"], "2024-05-01");
    EXPECT_EQ(output["step"], "ask");
    EXPECT_EQ(output["llm_cost_usd"], 0.01); // the script's own cost stands
    EXPECT_EQ(output["llm_fallback_used"], true);

    writeFlow({"prompt_template: prompts/ask.md", "fallback_strategy: bundled_script",
               "fallback_script: fallback/silent.py", "fallback_runtime: python"});
    routeStepTo("gpt-4o");
    EXPECT_EQ(failureText(), "Script output isn't valid JSON: not json\n");
    writeFlow({"prompt_template: prompts/ask.md", "fallback_strategy: bundled_script",
               "fallback_script: ../elsewhere.py"});
    EXPECT_EQ(failureText(), "Invalid bundled path: ../elsewhere.py");
}

TEST_F(LLMStepRunTest, StoppedRunEndsTheCallAtOnceWithoutFallingBack) {
    writeFlow({"prompt_template: prompts/ask.md", "fallback_strategy: news_briefing_summary"});
    anthropic.replyWith({200, "{}", 10s});
    std::stop_source stop;
    request.stopToken = stop.get_token();
    std::jthread canceller([&stop] {
        std::this_thread::sleep_for(300ms);
        stop.request_stop();
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_THAT(failureText(), ::testing::Not(HasSubstr("<no failure>")));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
}

TEST_F(LLMStepRunTest, ASpentMonthlyBudgetHoldsBackPaidCallsOnly) {
    const std::string secondAsk = "    - id: again\n      name: Again\n"
                                  "      type: llm-generate-structured\n"
                                  "      config:\n        prompt_template: prompts/ask.md\n";
    const struct {
        std::string name;
        std::int64_t budget;
        double recorded;
        std::string route;
        std::string moreSteps;
        std::size_t paidCalls;
        std::string failure;
    } cases[] = {
        {"no budget", 0, 1000, "claude-sonnet", "", 1, "<no failure>"},
        {"under it", 5, 4.99, "claude-sonnet", "", 1, "<no failure>"},
        {"reached", 5, 5, "claude-sonnet", "", 0,
         "Monthly LLM budget of $5 reached ($5.00 spent this month)."},
        {"local model", 5, 7, "ollama:qwen2.5:7b", "", 0, "<no failure>"},
        {"reached by this run", 5, 5 - fakeReplyCost / 2, "claude-sonnet", secondAsk, 1,
         "Monthly LLM budget of $5 reached ($5.00 spent this month)."},
    };
    for (const auto& c : cases) {
        writeFlow({"prompt_template: prompts/ask.md"}, c.moreSteps);
        request.clientProfile.clientProfile.llmRouting = LLMRouting(c.route, c.route);
        request.clientProfile.clientProfile.monthlyLLMBudgetUSD = c.budget;
        request.recordedLLMSpendThisMonthUSD = [recorded = c.recorded] { return recorded; };
        anthropic.replyWithText("{}");
        anthropic.replyWithText("{}");
        const auto before = anthropic.requests().size();
        EXPECT_EQ(failureText(), c.failure) << c.name;
        EXPECT_EQ(anthropic.requests().size() - before, c.paidCalls) << c.name;
    }

    // Like any failed call, a refused one falls back where the step allows it.
    request.recordedLLMSpendThisMonthUSD = [] { return 5.0; };
    writeFlow({"prompt_template: prompts/ask.md", "fallback_strategy: news_briefing_summary"});
    EXPECT_THAT(stepOutput()["executive_summary"].get<std::string>(),
                HasSubstr("Reason: Monthly LLM budget of $5 reached ($5.00 spent this month)."));
}

TEST_F(LLMStepRunTest, TheCostReachesTheRunAtItsGate) {
    writeFlow({"prompt_template: prompts/ask.md"},
              "    - id: gate\n      name: Gate\n      type: batch-approval\n");
    anthropic.replyWithText(R"({"rows": []})");
    auto driver = service();
    const auto loaded = WorkflowLoader(fixture.locator()).loadRunnableWorkflow("demo");
    const auto prepared =
        onWorker([&] { return prepareApprovalRun(driver, loaded, request, "manual"); });
    EXPECT_DOUBLE_EQ(prepared.llmCostUSD, fakeReplyCost);
}

TEST_F(LLMStepRunTest, DefaultHandlersTakeTheAnthropicAddressFromTheEnvironment) {
    testing::ScopedEnvironment baseURL{"QUORLIN_ANTHROPIC_BASE_URL", anthropic.baseURL()};
    writeFlow({"prompt_template: prompts/ask.md"});
    anthropic.replyWithText(R"({"title": "via environment"})");
    GenericScriptWorkflowService driver(WorkflowLoader(fixture.locator()), runner(),
                                        fixture.paths(), mainExecutor);
    const auto result = onWorker([&] {
        return driver.run(WorkflowLoader(fixture.locator()).loadRunnableWorkflow("demo"), request);
    });
    EXPECT_THAT(*result.stepRecords.at(0).outputJSON, HasSubstr("via environment"));
}

} // namespace
} // namespace quorlin
