#include "ClientProfileDocument.h"

#include "core/definitions/RecordDecoding.h"
#include "core/foundation/YamlWriter.h"

#include <algorithm>

namespace quorlin {

namespace {

std::int64_t requiredInteger(const Fields& fields, std::string_view key) {
    const auto& value = fields.required(key);
    const auto integer = yamlInteger(value);
    if (!integer) {
        throwTypeMismatch(value, fields.path(key), "an integer");
    }
    return *integer;
}

GmailProfile decodeGmail(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    return {fields.requiredText("account"), fields.requiredText("auth_method"),
            fields.requiredText("search_query"), fields.optionalText("target_year_month")};
}

ClientProfile decodeProfile(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    ClientProfile profile;
    profile.clientName = fields.requiredText("client_name");
    profile.approvers.owner =
        Fields(fields.required("approvers"), fields.path("approvers")).requiredText("owner");
    profile.gmail = decodeGmail(fields.required("gmail"), fields.path("gmail"));
    const Fields paths(fields.required("paths"), fields.path("paths"));
    profile.paths = {paths.requiredText("receipts_root"),
                     paths.requiredText("folder_name_template")};
    profile.llmRouting =
        decodeLLMRouting(fields.required("llm_routing"), fields.path("llm_routing"));
    profile.monthlyLLMBudgetUSD = requiredInteger(fields, "monthly_llm_budget_usd");
    return profile;
}

void writeText(YamlWriter& writer, std::string_view key, std::string_view text) {
    writer.key(key);
    writer.string(text);
}

void writeProfile(YamlWriter& writer, const ClientProfile& profile) {
    writer.beginMapping();
    writeText(writer, "client_name", profile.clientName);
    writer.key("approvers");
    writer.beginMapping();
    writeText(writer, "owner", profile.approvers.owner);
    writer.endMapping();
    writer.key("gmail");
    writer.beginMapping();
    writeText(writer, "account", profile.gmail.account);
    writeText(writer, "auth_method", profile.gmail.authMethod);
    writeText(writer, "search_query", profile.gmail.searchQuery);
    if (profile.gmail.targetYearMonth) {
        writeText(writer, "target_year_month", *profile.gmail.targetYearMonth);
    }
    writer.endMapping();
    writer.key("paths");
    writer.beginMapping();
    writeText(writer, "receipts_root", profile.paths.receiptsRoot);
    writeText(writer, "folder_name_template", profile.paths.folderNameTemplate);
    writer.endMapping();
    writer.key("llm_routing");
    writeLLMRouting(writer, profile.llmRouting);
    writer.key("monthly_llm_budget_usd");
    writer.integer(profile.monthlyLLMBudgetUSD);
    writer.endMapping();
}

} // namespace

ClientProfileDocument decodeClientProfileDocument(const YamlNode& root) {
    // An empty file reads as an empty scalar: it lacks the one required key.
    if (isYamlNull(root)) {
        throw DecodingError(DecodingError::Kind::keyNotFound, "", "client_profile", {}, root.mark);
    }
    const Fields fields(root, "");
    return {decodeProfile(fields.required("client_profile"), "client_profile")};
}

ClientProfileDocument decodeClientProfileDocumentYaml(std::string_view text) {
    return decodeClientProfileDocument(parseYaml(text));
}

std::string encodeClientProfileDocumentYaml(const ClientProfileDocument& document) {
    YamlWriter writer;
    writer.beginMapping();
    writer.key("client_profile");
    writeProfile(writer, document.clientProfile);
    writer.endMapping();
    return writer.finish();
}

WorkflowValue toWorkflowValue(const ClientProfile& profile) {
    WorkflowValue::Object gmail{{"account", profile.gmail.account},
                                {"auth_method", profile.gmail.authMethod},
                                {"search_query", profile.gmail.searchQuery}};
    if (profile.gmail.targetYearMonth) {
        gmail.emplace("target_year_month", *profile.gmail.targetYearMonth);
    }
    return WorkflowValue::Object{
        {"client_name", profile.clientName},
        {"approvers", WorkflowValue::Object{{"owner", profile.approvers.owner}}},
        {"gmail", std::move(gmail)},
        {"paths",
         WorkflowValue::Object{{"receipts_root", profile.paths.receiptsRoot},
                               {"folder_name_template", profile.paths.folderNameTemplate}}},
        {"llm_routing", toWorkflowValue(profile.llmRouting)},
        {"monthly_llm_budget_usd", profile.monthlyLLMBudgetUSD},
    };
}

const WorkflowValue* findValueAtPath(const WorkflowValue& tree, std::string_view dottedPath) {
    const WorkflowValue* current = &tree;
    std::size_t start = 0;
    while (start <= dottedPath.size()) {
        const auto dot = std::min(dottedPath.find('.', start), dottedPath.size());
        const auto piece = dottedPath.substr(start, dot - start);
        start = dot + 1;
        if (piece.empty()) {
            continue;
        }
        const auto* object = current->object();
        if (object == nullptr) {
            return nullptr;
        }
        const auto found = object->find(std::string(piece));
        if (found == object->end()) {
            return nullptr;
        }
        current = &found->second;
    }
    return current;
}

} // namespace quorlin
