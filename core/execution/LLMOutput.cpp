#include "LLMOutput.h"

#include "core/definitions/WorkflowScalarRules.h"
#include "core/foundation/LocalTime.h"
#include "core/foundation/Text.h"

#include <algorithm>
#include <chrono>

namespace quorlin {

namespace {

constexpr std::size_t briefingArticleLimit = 8;

const WorkflowValue* configValue(const FlowStep& step, std::string_view key) {
    if (!step.config) {
        return nullptr;
    }
    const auto found = step.config->find(std::string(key));
    return found == step.config->end() ? nullptr : &found->second;
}

const WorkflowValue::Object* configObject(const FlowStep& step, std::string_view key) {
    const auto* value = configValue(step, key);
    return value == nullptr ? nullptr : value->object();
}

std::string stringOr(const WorkflowValue::Object& object, const std::string& key,
                     std::string fallback) {
    const auto found = object.find(key);
    if (found != object.end()) {
        if (const auto* text = found->second.string()) {
            return *text;
        }
    }
    return fallback;
}

void addTrimmed(std::vector<std::string>& list, std::string_view piece) {
    if (std::string text = trimmed(piece); !text.empty()) {
        list.push_back(std::move(text));
    }
}

void countContextArrays(WorkflowValueMap& output, const WorkflowValueMap& context,
                        const WorkflowValue::Object& counts) {
    for (const auto& [key, source] : counts) {
        const auto* name = source.string();
        if (name == nullptr) {
            continue;
        }
        const auto found = context.find(*name);
        if (found != context.end() && found->second.array() != nullptr) {
            output[key] = WorkflowValue(static_cast<std::int64_t>(found->second.array()->size()));
        }
    }
}

std::vector<WorkflowValue::Object> briefingArticles(const WorkflowValueMap& context) {
    std::vector<WorkflowValue::Object> articles;
    const auto found = context.find("articles");
    if (found == context.end() || found->second.array() == nullptr) {
        return articles;
    }
    for (const auto& article : *found->second.array()) {
        if (articles.size() == briefingArticleLimit) {
            break;
        }
        if (const auto* object = article.object()) {
            articles.push_back(*object);
        }
    }
    return articles;
}

std::string briefingDate(const WorkflowValueMap& context) {
    if (const auto found = context.find("date"); found != context.end()) {
        if (const auto* text = found->second.string()) {
            return *text;
        }
    }
    return formatLocalMinute(std::chrono::system_clock::now()).substr(0, 10);
}

WorkflowValue briefingArticle(const WorkflowValue::Object& article) {
    const std::string title = stringOr(article, "title", "");
    WorkflowValue::Object entry{{"title", WorkflowValue(title)},
                                {"title_zh", WorkflowValue(stringOr(article, "title_zh", title))}};
    if (const auto found = article.find("summary");
        found != article.end() && found->second.string() != nullptr) {
        entry["one_line"] = found->second;
    }
    return WorkflowValue(std::move(entry));
}

std::optional<double> costValue(const WorkflowValue& value) {
    if (const auto* real = value.real()) {
        return *real;
    }
    if (const auto* integer = value.integer()) {
        return static_cast<double>(*integer);
    }
    if (const auto* text = value.string()) {
        return parseFloatingNumber(*text);
    }
    return std::nullopt;
}

} // namespace

std::vector<std::string> stringList(const WorkflowValue* value) {
    std::vector<std::string> list;
    if (value == nullptr) {
        return list;
    }
    if (const auto* text = value->string()) {
        std::size_t start = 0;
        for (std::size_t comma = text->find(','); comma != std::string::npos;
             comma = text->find(',', start)) {
            addTrimmed(list, std::string_view(*text).substr(start, comma - start));
            start = comma + 1;
        }
        addTrimmed(list, std::string_view(*text).substr(start));
    } else if (const auto* array = value->array()) {
        for (const auto& element : *array) {
            if (const auto* elementText = element.string()) {
                addTrimmed(list, *elementText);
            }
        }
    }
    return list;
}

WorkflowValueMap shapedLLMOutput(const WorkflowValueMap& modelOutput,
                                 const WorkflowValueMap& context, const FlowStep& step) {
    const auto* resultKey = configValue(step, "result_key");
    const std::string wrapKey =
        resultKey != nullptr && resultKey->string() != nullptr ? trimmed(*resultKey->string()) : "";
    WorkflowValueMap output =
        wrapKey.empty()
            ? modelOutput
            : WorkflowValueMap{{wrapKey, WorkflowValue(WorkflowValue::Object(modelOutput))}};
    for (const auto& key : stringList(configValue(step, "passthrough_context_keys"))) {
        if (const auto found = context.find(key); found != context.end()) {
            output[key] = found->second;
        }
    }
    if (const auto* statics = configObject(step, "static_outputs")) {
        for (const auto& [key, value] : *statics) {
            output[key] = value;
        }
    }
    if (const auto* counts = configObject(step, "count_outputs")) {
        countContextArrays(output, context, *counts);
    }
    return output;
}

WorkflowValueMap fallbackNewsBriefing(const WorkflowValueMap& context, const FlowStep& step,
                                      const std::string& reason) {
    const auto* prefixValue = configValue(step, "fallback_headline_prefix");
    const std::string prefix = prefixValue != nullptr && prefixValue->string() != nullptr
                                   ? *prefixValue->string()
                                   : std::string("News");
    WorkflowValue::Array keyPoints;
    WorkflowValue::Array articles;
    for (const auto& article : briefingArticles(context)) {
        keyPoints.emplace_back(stringOr(article, "section", "News") + ": " +
                               stringOr(article, "title", ""));
        articles.push_back(briefingArticle(article));
    }
    WorkflowValueMap briefing{
        {"headline", WorkflowValue(briefingDate(context) + " " + prefix + " daily briefing")},
        {"executive_summary",
         WorkflowValue("App LLM provider isn't configured or failed to respond, so falling back "
                       "to a rule-based summary. Reason: " +
                       reason)},
        {"key_points", WorkflowValue(std::move(keyPoints))},
        {"market_implications", WorkflowValue(WorkflowValue::Array{})},
        {"articles", WorkflowValue(std::move(articles))}};
    const auto* riskWatch = configValue(step, "include_risk_watch");
    if (riskWatch != nullptr && riskWatch->boolean() != nullptr && *riskWatch->boolean()) {
        briefing["risk_watch"] = WorkflowValue(WorkflowValue::Array{});
    }
    return briefing;
}

double llmCostUSD(const StepOutputs& stepOutputs) {
    for (const auto& [stepID, outputs] : stepOutputs) {
        if (const auto found = outputs.find(std::string(llmCostOutputKey));
            found != outputs.end()) {
            if (const auto cost = costValue(found->second)) {
                return *cost;
            }
        }
    }
    return 0;
}

double llmSpendUSD(const StepOutputs& stepOutputs) {
    double spent = 0;
    for (const auto& [stepID, outputs] : stepOutputs) {
        if (const auto found = outputs.find(std::string(llmCostOutputKey));
            found != outputs.end()) {
            spent += costValue(found->second).value_or(0);
        }
    }
    return spent;
}

} // namespace quorlin
