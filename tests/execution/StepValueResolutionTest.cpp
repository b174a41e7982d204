#include "core/definitions/WorkflowLoader.h"
#include "core/execution/StepValueResolution.h"

#include <gtest/gtest.h>

namespace quorlin {
namespace {

const StepOutputs outputs{
    {"a", {{"x", WorkflowValue(std::int64_t{7})}, {"name", "Acme"}, {"nested", WorkflowValue::Object{{"y", 1}}}}},
    {"empty", {}},
};

std::string errorOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const WorkflowLoaderError& error) {
        return error.what();
    }
    return "no error";
}

TEST(StepValueResolution, WholeValueReferencesKeepTheirType) {
    const std::pair<WorkflowValue, WorkflowValue> cases[] = {
        {"  {{ steps.a.outputs.x }}  ", std::int64_t{7}},
        {"{{steps..a.outputs.name}}", "Acme"},
        {"{{steps.empty.outputs}}", WorkflowValue::Object{}},
        {"Report for {{steps.a.outputs.x}}", "Report for {{steps.a.outputs.x}}"}, // not whole
        {"{{ profile.client_name }}", "{{ profile.client_name }}"},               // not a step
        {"{{ steps.a.results.x }}", "{{ steps.a.results.x }}"},
        {WorkflowValue::Array{"{{steps.a.outputs.x}}", true}, WorkflowValue::Array{std::int64_t{7}, true}},
        {WorkflowValue::Object{{"{{keys stay}}", "{{steps.a.outputs.name}}"}},
         WorkflowValue::Object{{"{{keys stay}}", "Acme"}}},
        {2.5, 2.5},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(resolvedInputValue(input, outputs), expected);
    }
}

TEST(StepValueResolution, MissingReferencesFailWithTheirExpression) {
    const std::pair<std::string, std::string> cases[] = {
        {"{{ steps.b.outputs.x }}", "Missing outputs for step b"},
        {"{{ steps.a.outputs.z }}", "Missing output steps.a.outputs.z"},
        {"{{steps.a.outputs.nested.y}}", "Missing output steps.a.outputs.nested.y"},
        {"{{steps.a.outputs.x}} {{steps.b.outputs.y}}", "Missing output steps.a.outputs.x}} {{steps.b.outputs.y"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(errorOf([&] { resolvedTemplateString(text, outputs); }), expected) << text;
    }
}

TEST(StepValueResolution, TemplatesRenderProfileStepAndMonthForms) {
    const WorkflowValue profile = WorkflowValue::Object{
        {"client_name", "Dana"},
        {"archive", WorkflowValue::Object{{"folder", "~/Receipts/{{YYYY}}/{{MM}}"}}},
        {"count", 3},
    };
    const auto january = *parseIso8601("2025-01-15T12:00:00Z");
    const std::pair<std::string, std::string> cases[] = {
        {"{{ profile.client_name }} / {{steps.a.outputs.name}}", "Dana / Acme"},
        {"{{ current_month | archive.folder }}", "~/Receipts/2025/01"},
        {"{{prev_month|profile.archive.folder}}", "~/Receipts/2024/12"},
        {"{{ next_month | archive.folder }}", "{{next_month | archive.folder}}"},
        {"{{ profile.archive.folder }}", "~/Receipts/{{YYYY}}/{{MM}}"},
        {"keep {{YYYY}} and {{a}b}}", "keep {{YYYY}} and {{a}b}}"},
        {"{{ steps.a.results }}", "{{steps.a.results}}"},
    };
    for (const auto& [templateText, expected] : cases) {
        EXPECT_EQ(renderTemplate(templateText, outputs, profile, january), expected) << templateText;
    }
    const std::pair<std::string, std::string> failures[] = {
        {"{{ profile.missing.key }}", "Unknown profile template value: profile.missing.key"},
        {"{{ profile.count }}", "Profile template value is not a string: profile.count"},
        {"{{ profile.archive }}", "Profile template value is not a string: profile.archive"},
        {"{{ steps.a.outputs.x }}", "Step output is not a string: steps.a.outputs.x"},
        {"{{ steps.q.outputs.x }}", "Missing output steps.q.outputs.x"},
    };
    for (const auto& [templateText, expected] : failures) {
        EXPECT_EQ(errorOf([&] { renderTemplate(templateText, outputs, profile, january); }), expected);
    }
}

} // namespace
} // namespace quorlin
