#include "core/definitions/WorkflowDocument.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValueCoding.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

using Int = std::int64_t;
using ::testing::HasSubstr;

const char* const fullDocument = R"(# every record and field, plus keys nobody knows yet
flow:
  id: receipts
  name: Monthly receipts
  version: 1.10
  description: Files receipts
  requires_profile_schema: [name, email]
  future_field: ignored
  roi:
    replaces_manual_minutes_per_run: 45
    expected_runs_per_month: 1
  llm_requirements:
    naming:
      label: File naming
      default: anthropic
      allowed: [anthropic, ollama]
      quality_hint: high
      unknown: ignored
  triggers:
    - type: manual
    - type: schedule
      cron: "0 9 1 * *"
  steps:
    - id: search
      name: Search mail
      block: gmail.search-messages@1.0.0
      type: gmail-search
      action: {kind: search}
      inputs:
        query: has:attachment
        max: 50
        since: 2024-01-15
      outputs:
        - name: messages
          type: json
          schema: {type: array, min: 0}
      config: {retries: 3, backoff: 1.5}
      capabilities: [network.google, files]
      on_error: halt
      replaces_manual_minutes: 10
      extra: {ignored: true}
    - id: review
      name: Review
      type: approval-gate
  artifacts:
    - type: folder
      path: ~/Receipts
      label: Receipts
      action: open
      fields:
        - label: Month
          value: "2024-01"
  audit:
    record_llm_calls: yes
    record_cost: false
    record_manual_minutes_replaced: true
    record_step_timings: on
    record_file_operations: off
  on_step_failure:
    default: halt
    quarantine_folder: ~/Quarantine
)";

// A minimal valid document whose only step holds stepBody (lines indented by six).
std::string documentWithStep(const std::string& stepBody) {
    return "flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: []\n  steps:\n"
           "    - id: s\n      name: S\n      type: t\n" +
           stepBody;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream buffer;
    buffer << stream.rdbuf();
    return buffer.str();
}

TEST(WorkflowDocumentTest, DecodesEveryRecordOfAFullDocument) {
    const auto flow = decodeWorkflowDocumentYaml(fullDocument).flow;
    EXPECT_EQ(flow.id, "receipts");
    EXPECT_EQ(flow.version, "1.10");
    EXPECT_EQ(flow.description, "Files receipts");
    EXPECT_EQ(flow.requiresProfileSchema, (std::vector<std::string>{"name", "email"}));
    EXPECT_EQ(flow.roi, (ROIConfiguration{45, 1}));
    ASSERT_TRUE(flow.llmRequirements);
    EXPECT_EQ(flow.llmRequirements->at("naming"),
              (WorkflowLLMRequirement{"File naming", "anthropic",
                                      std::vector<std::string>{"anthropic", "ollama"}, "high"}));
    EXPECT_EQ(flow.triggers, (std::vector<TriggerDefinition>{{"manual", std::nullopt},
                                                             {"schedule", "0 9 1 * *"}}));
    ASSERT_EQ(flow.steps.size(), 2U);

    const auto& search = flow.steps[0];
    EXPECT_EQ(search.block, "gmail.search-messages@1.0.0");
    EXPECT_EQ(search.type, "gmail-search");
    EXPECT_EQ(search.action, (WorkflowValueMap{{"kind", "search"}}));
    EXPECT_EQ(
        search.inputs,
        (WorkflowValueMap{{"query", "has:attachment"}, {"max", Int{50}}, {"since", "2024-01-15"}}));
    ASSERT_TRUE(search.outputs);
    EXPECT_EQ(search.outputs->at(0).schema, (WorkflowValueMap{{"type", "array"}, {"min", Int{0}}}));
    EXPECT_EQ(search.config, (WorkflowValueMap{{"retries", Int{3}}, {"backoff", 1.5}}));
    EXPECT_EQ(search.capabilities, (std::vector<std::string>{"network.google", "files"}));
    EXPECT_EQ(search.onError, StepErrorBehavior::halt);
    EXPECT_EQ(search.replacesManualMinutes, 10);

    const auto& review = flow.steps[1];
    EXPECT_FALSE(review.block || review.action || review.inputs || review.outputs ||
                 review.config || review.onError || review.replacesManualMinutes);
    EXPECT_TRUE(review.capabilities.empty());

    ASSERT_TRUE(flow.artifacts);
    EXPECT_EQ(flow.artifacts->at(0),
              (ArtifactDefinition{"folder", "~/Receipts", "Receipts", "open",
                                  std::vector<ArtifactField>{{"Month", "2024-01"}}}));
    EXPECT_EQ(flow.audit, (AuditConfiguration{true, false, true, true, false}));
    EXPECT_EQ(flow.onStepFailure, (StepFailurePolicy{"halt", "~/Quarantine"}));
}

TEST(WorkflowDocumentTest, FieldPresenceFollowsTheFieldsType) {
    struct Case {
        const char* name;
        std::string yaml;
        std::function<void(const FlowDefinition&)> check;
    };
    const auto step = [](const FlowDefinition& flow) { return flow.steps.at(0); };
    const Case cases[] = {
        {"text fields keep the source text",
         "flow:\n  id: 007\n  name: 1e3\n  version: 1.0\n  description: yes\n  triggers: []\n"
         "  steps: []\n",
         [](const FlowDefinition& flow) {
             EXPECT_EQ(flow.id, "007");
             EXPECT_EQ(flow.name, "1e3");
             EXPECT_EQ(flow.version, "1.0");
             EXPECT_EQ(flow.description, "yes");
         }},
        {"a required text field may be empty",
         "flow:\n  id:\n  name: ''\n  version: ~\n  triggers: []\n  steps: []\n",
         [](const FlowDefinition& flow) {
             EXPECT_EQ(flow.id, "");
             EXPECT_EQ(flow.name, "");
             EXPECT_EQ(flow.version, "~");
         }},
        {"an optional field spelled empty or null is absent",
         "flow:\n  id: f\n  name: F\n  version: '1'\n  description:\n  roi: ~\n  audit: null\n"
         "  artifacts: Null\n  triggers: []\n  steps: []\n",
         [](const FlowDefinition& flow) {
             EXPECT_FALSE(flow.description || flow.roi || flow.audit || flow.artifacts);
         }},
        {"a quoted empty optional text is present",
         "flow:\n  id: f\n  name: F\n  version: '1'\n  description: ''\n  triggers: []\n"
         "  steps: []\n",
         [](const FlowDefinition& flow) { EXPECT_EQ(flow.description, ""); }},
        {"empty inputs are absent", documentWithStep("      inputs:\n"),
         [&](const FlowDefinition& flow) { EXPECT_FALSE(step(flow).inputs); }},
        {"inputs {} are an empty map", documentWithStep("      inputs: {}\n"),
         [&](const FlowDefinition& flow) { EXPECT_EQ(step(flow).inputs, WorkflowValueMap{}); }},
        {"an input with a null value keeps its key",
         documentWithStep("      inputs:\n        gone:\n"),
         [&](const FlowDefinition& flow) {
             EXPECT_EQ(step(flow).inputs, (WorkflowValueMap{{"gone", WorkflowValue::Null{}}}));
         }},
        {"no capabilities key gives none", documentWithStep(""),
         [&](const FlowDefinition& flow) { EXPECT_TRUE(step(flow).capabilities.empty()); }},
        {"null capabilities give none", documentWithStep("      capabilities:\n"),
         [&](const FlowDefinition& flow) { EXPECT_TRUE(step(flow).capabilities.empty()); }},
        {"on_error warn", documentWithStep("      on_error: warn\n"),
         [&](const FlowDefinition& flow) {
             EXPECT_EQ(step(flow).onError, StepErrorBehavior::warn);
         }},
        {"integer fields take every integer spelling",
         documentWithStep("      replaces_manual_minutes: 0x1_0\n"),
         [&](const FlowDefinition& flow) { EXPECT_EQ(step(flow).replacesManualMinutes, 16); }},
        {"text lists keep each element's text",
         documentWithStep("      capabilities: [1, yes, ~, \"x\"]\n"),
         [&](const FlowDefinition& flow) {
             EXPECT_EQ(step(flow).capabilities, (std::vector<std::string>{"1", "yes", "~", "x"}));
         }},
        {"map keys are source text",
         documentWithStep("      config:\n        1: a\n        true: b\n"),
         [&](const FlowDefinition& flow) {
             EXPECT_EQ(step(flow).config, (WorkflowValueMap{{"1", "a"}, {"true", "b"}}));
         }},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        testCase.check(decodeWorkflowDocumentYaml(testCase.yaml).flow);
    }
}

TEST(WorkflowDocumentTest, ADocumentThatDoesNotFitFailsWithItsPathAndPlace) {
    struct Case {
        std::string yaml;
        DecodingError::Kind kind;
        const char* message;
    };
    const Case cases[] = {
        {"", DecodingError::Kind::keyNotFound, "Missing required key 'flow' at the document root"},
        {"- flow\n", DecodingError::Kind::typeMismatch,
         "Expected a mapping at the document root, found a sequence (line 1, column 1)"},
        {"flow:\n", DecodingError::Kind::typeMismatch,
         "Expected a mapping at flow, found an empty value (line 1, column 6)"},
        {"flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: []\n",
         DecodingError::Kind::keyNotFound,
         "Missing required key 'steps' at flow (line 2, column 3)"},
        {"flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: []\n  steps:\n",
         DecodingError::Kind::typeMismatch,
         "Expected a sequence at flow.steps, found an empty value (line 6, column 9)"},
        {"flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: []\n  steps:\n"
         "    - id: a\n      name: A\n      type: t\n    - id: b\n      type: t\n",
         DecodingError::Kind::keyNotFound,
         "Missing required key 'name' at flow.steps[1] (line 10, column 7)"},
        {"flow:\n  id: [x]\n  name: F\n  version: '1'\n  triggers: []\n  steps: []\n",
         DecodingError::Kind::typeMismatch,
         "Expected text at flow.id, found a sequence (line 2, column 7)"},
        {"flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: [{cron: x}]\n  steps: []\n",
         DecodingError::Kind::keyNotFound,
         "Missing required key 'type' at flow.triggers[0] (line 5, column 14)"},
        {documentWithStep("      capabilities: network\n"), DecodingError::Kind::typeMismatch,
         "Expected a sequence at flow.steps[0].capabilities, found \"network\" (line 10, column "
         "21)"},
        {documentWithStep("      on_error: Halt\n"), DecodingError::Kind::typeMismatch,
         "Expected \"warn\" or \"halt\" at flow.steps[0].on_error, found \"Halt\" (line 10, column "
         "17)"},
        {documentWithStep("      on_error: sometimes\n"), DecodingError::Kind::typeMismatch,
         "Expected \"warn\" or \"halt\" at flow.steps[0].on_error, found \"sometimes\" (line 10, "
         "column 17)"},
        {documentWithStep("      replaces_manual_minutes: abc\n"),
         DecodingError::Kind::typeMismatch,
         "Expected an integer at flow.steps[0].replaces_manual_minutes, found \"abc\" (line 10, "
         "column 32)"},
        {documentWithStep("      replaces_manual_minutes: \"5\"\n"),
         DecodingError::Kind::typeMismatch,
         "Expected an integer at flow.steps[0].replaces_manual_minutes, found \"5\" (line 10, "
         "column 32)"},
        {documentWithStep("      replaces_manual_minutes: 1.5\n"),
         DecodingError::Kind::typeMismatch,
         "Expected an integer at flow.steps[0].replaces_manual_minutes, found \"1.5\" (line 10, "
         "column 32)"},
        {documentWithStep("      inputs: [a]\n"), DecodingError::Kind::typeMismatch,
         "Expected a mapping at flow.steps[0].inputs, found a sequence (line 10, column 15)"},
        {documentWithStep("      outputs:\n        - name: x\n"), DecodingError::Kind::keyNotFound,
         "Missing required key 'type' at flow.steps[0].outputs[0] (line 11, column 11)"},
        {"flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: []\n  steps: []\n"
         "  audit:\n    record_cost: 1\n",
         DecodingError::Kind::typeMismatch,
         "Expected a boolean at flow.audit.record_cost, found \"1\" (line 8, column 18)"},
        {"flow:\n  id: f\n  name: F\n  version: '1'\n  triggers: []\n  steps: []\n"
         "  llm_requirements:\n    naming:\n",
         DecodingError::Kind::typeMismatch,
         "Expected a mapping at flow.llm_requirements.naming, found an empty value (line 8, "
         "column 12)"},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.yaml);
        try {
            decodeWorkflowDocumentYaml(testCase.yaml);
            ADD_FAILURE() << "decoded without error";
        } catch (const DecodingError& error) {
            EXPECT_EQ(error.kind(), testCase.kind);
            EXPECT_STREQ(error.what(), testCase.message);
        }
    }
}

TEST(WorkflowDocumentTest, YamlErrorsPassThroughUnchanged) {
    const auto text = documentWithStep("      inputs:\n        a: 1\n        a: 2\n");
    try {
        decodeWorkflowDocumentYaml(text);
        ADD_FAILURE() << "decoded without error";
    } catch (const YamlError& error) {
        EXPECT_EQ(error.kind(), YamlError::Kind::duplicateKey);
        EXPECT_THAT(error.what(), HasSubstr("Duplicate values for key: 'a'"));
    }
    EXPECT_THROW(decodeWorkflowDocumentYaml(std::string(fullDocument) + "---\nflow: {}\n"),
                 YamlError);
}

TEST(WorkflowDocumentTest, MergeKeysAndAliasesShareStepSettings) {
    const auto flow = decodeWorkflowDocumentYaml(R"(
shared: &shared
  type: script
  capabilities: [network]
  config: &config {timeout: 30}
flow:
  id: f
  name: F
  version: '1'
  triggers: []
  steps:
    - <<: *shared
      id: a
      name: A
    - <<: *shared
      id: b
      name: B
      type: llm
      config: {<<: *config, timeout: 60, model: x}
)")
                          .flow;
    ASSERT_EQ(flow.steps.size(), 2U);
    EXPECT_EQ(flow.steps[0].type, "script");
    EXPECT_EQ(flow.steps[0].capabilities, std::vector<std::string>{"network"});
    EXPECT_EQ(flow.steps[0].config, (WorkflowValueMap{{"timeout", Int{30}}}));
    EXPECT_EQ(flow.steps[1].type, "llm");
    EXPECT_EQ(flow.steps[1].config, (WorkflowValueMap{{"timeout", Int{60}}, {"model", "x"}}));
}

TEST(WorkflowDocumentTest, TheJsonFormDecodesLikeTheYamlForm) {
    const auto json = nlohmann::json::parse(R"({
      "flow": {
        "id": "007", "name": "F", "version": "1.0", "description": null,
        "triggers": [{"type": "manual"}],
        "steps": [{
          "id": "s", "name": "S", "type": "t",
          "inputs": {"flag": true, "text": "true", "count": 3, "whole": 3.0, "ratio": 0.25,
                     "none": null, "list": [1, "1"]},
          "capabilities": null,
          "on_error": "warn",
          "replaces_manual_minutes": 5
        }],
        "audit": {"record_cost": true}
      }
    })");
    const auto yaml = R"(
flow:
  id: "007"
  name: F
  version: "1.0"
  triggers: [{type: manual}]
  steps:
    - id: s
      name: S
      type: t
      inputs: {flag: true, text: "true", count: 3, whole: 3, ratio: 0.25, none: ~, list: [1, "1"]}
      on_error: warn
      replaces_manual_minutes: 5
  audit: {record_cost: true}
)";
    EXPECT_EQ(decodeWorkflowDocumentJson(json), decodeWorkflowDocumentYaml(yaml));

    // JSON strings stay text even where a plain YAML scalar would not.
    const auto typed = nlohmann::json::parse(
        R"({"flow": {"id": "f", "name": "F", "version": "1", "triggers": [], "steps": [],
            "roi": {"expected_runs_per_month": "4"}}})");
    EXPECT_THROW(decodeWorkflowDocumentJson(typed), DecodingError);
}

TEST(WorkflowDocumentTest, EncodingAndDecodingAgainGivesTheSameDocument) {
    const auto document = decodeWorkflowDocumentYaml(fullDocument);
    const nlohmann::json encoded = toJson(document);
    EXPECT_EQ(decodeWorkflowDocumentJson(encoded), document);
}

TEST(WorkflowDocumentTest, EncodersWriteFieldOrderAndAlwaysCapabilities) {
    const auto document = decodeWorkflowDocumentYaml(R"(
flow:
  steps:
    - replaces_manual_minutes: 3
      on_error: warn
      inputs: {b: 2, a: 1}
      type: t
      name: S
      id: s
    - {type: t, name: T, id: t}
  triggers: [{cron: "* * * * *", type: schedule}]
  version: '2'
  on_step_failure: {quarantine_folder: q}
  name: F
  id: f
)");
    EXPECT_EQ(toJson(document).dump(),
              R"({"flow":{"id":"f","name":"F","version":"2",)"
              R"("triggers":[{"type":"schedule","cron":"* * * * *"}],"steps":[)"
              R"({"id":"s","name":"S","type":"t","inputs":{"a":1,"b":2},"capabilities":[],)"
              R"("on_error":"warn","replaces_manual_minutes":3},)"
              R"({"id":"t","name":"T","type":"t","capabilities":[]}],)"
              R"("on_step_failure":{"quarantine_folder":"q"}}})");
}

TEST(WorkflowDocumentTest, NetworkCapabilityIsRecognisedByName) {
    struct Case {
        std::vector<std::string> capabilities;
        bool expected;
    };
    const Case cases[] = {
        {{}, false},
        {{"files"}, false},
        {{"network"}, true},
        {{"files", "Internet"}, true},
        {{"NETWORK.google"}, true},
        {{"network."}, true},
        {{"networking"}, false},
        {{"local-network"}, false},
    };
    for (const auto& testCase : cases) {
        FlowStep step;
        step.capabilities = testCase.capabilities;
        EXPECT_EQ(step.requiresNetworkCapability(), testCase.expected)
            << ::testing::PrintToString(testCase.capabilities);
    }
}

TEST(WorkflowDocumentTest, TrickyScalarsFixtureMatchesItsExpectedInspection) {
    const std::filesystem::path directory = QUORLIN_TEST_DATA_DIR "/inspect";
    const auto yaml = readFile(directory / "tricky-scalars.flow.yaml");
    const auto expected = readFile(directory / "tricky-scalars.expected.json");
    ASSERT_FALSE(yaml.empty());
    EXPECT_EQ(toJson(decodeWorkflowDocumentYaml(yaml)).dump(2) + "\n", expected);
}

} // namespace
} // namespace quorlin
