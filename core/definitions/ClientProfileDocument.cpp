#include "ClientProfileDocument.h"

#include "core/definitions/RecordDecoding.h"
#include "core/foundation/Text.h"
#include "core/foundation/YamlWriter.h"

#include <algorithm>
#include <array>

namespace quorlin {

namespace {

constexpr std::string_view defaultKey = "default";
constexpr std::string_view defaultProviderKey = "default_provider";
constexpr std::string_view workflowsKey = "workflows";
constexpr std::string_view stepsKey = "steps";

// Keys of llm_routing that are not roles: a route under one of these names could not be
// written without colliding with the routing's own entries.
bool isReservedRoutingKey(std::string_view key) {
    constexpr std::array<std::string_view, 5> reserved{defaultKey, defaultProviderKey,
                                                       namingProposalRole, workflowsKey, stepsKey};
    for (const auto word : reserved) {
        if (key == word) {
            return true;
        }
    }
    return false;
}

std::optional<std::string> lookup(const LLMRouteMap& routes, std::string_view key) {
    const auto found = routes.find(key);
    return found == routes.end() ? std::nullopt : std::optional(found->second);
}

LLMRouteMap decodeRouteMap(const YamlNode& node, const std::string& path) {
    if (!node.isMapping()) {
        throwTypeMismatch(node, path, "a mapping");
    }
    LLMRouteMap routes;
    for (const auto& [key, value] : node.entries) {
        routes.insert_or_assign(key, scalarText(value, keyPath(path, key)));
    }
    return routes;
}

LLMRouting decodeLLMRouting(const YamlNode& node, const std::string& path) {
    if (!node.isMapping()) {
        throwTypeMismatch(node, path, "a mapping");
    }
    std::optional<std::string> defaultProvider;
    LLMRouteMap additionalRoutes;
    LLMRouteMap workflowDefaults;
    LLMRouteMap stepRoutes;
    // Entries come in document order, so with both spellings of the default present the
    // later one stands.
    for (const auto& [key, value] : node.entries) {
        const auto entryPath = keyPath(path, key);
        if (key == defaultKey || key == defaultProviderKey) {
            defaultProvider = scalarText(value, entryPath);
        } else if (key == workflowsKey) {
            workflowDefaults = decodeRouteMap(value, entryPath);
        } else if (key == stepsKey) {
            stepRoutes = decodeRouteMap(value, entryPath);
        } else {
            additionalRoutes.insert_or_assign(key, scalarText(value, entryPath));
        }
    }
    std::string namingProposal(fallbackLLMProvider);
    if (const auto naming = additionalRoutes.find(namingProposalRole);
        naming != additionalRoutes.end()) {
        namingProposal = std::move(naming->second);
        additionalRoutes.erase(naming);
    }
    return LLMRouting(std::move(namingProposal), std::move(defaultProvider),
                      std::move(additionalRoutes), std::move(workflowDefaults),
                      std::move(stepRoutes));
}

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

void writeRouteMap(YamlWriter& writer, std::string_view key, const LLMRouteMap& routes) {
    writer.key(key);
    writer.beginMapping();
    for (const auto& [name, provider] : routes) {
        writer.key(name);
        writer.string(provider);
    }
    writer.endMapping();
}

// "default_provider" is read but never written: after one save the key is "default".
void writeLLMRouting(YamlWriter& writer, const LLMRouting& routing) {
    for (const auto& entry : routing.additionalRoutes) {
        if (isReservedRoutingKey(entry.first)) {
            throw ClientProfileError(ClientProfileError::Kind::reservedRoutingRole, entry.first);
        }
    }
    writer.beginMapping();
    writer.key(defaultKey);
    writer.string(routing.defaultProvider);
    writer.key(namingProposalRole);
    writer.string(routing.namingProposal);
    for (const auto& [role, provider] : routing.additionalRoutes) {
        writer.key(role);
        writer.string(provider);
    }
    if (!routing.workflowDefaults.empty()) {
        writeRouteMap(writer, workflowsKey, routing.workflowDefaults);
    }
    if (!routing.stepRoutes.empty()) {
        writeRouteMap(writer, stepsKey, routing.stepRoutes);
    }
    writer.endMapping();
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

WorkflowValue::Object routeObject(const LLMRouteMap& routes) {
    WorkflowValue::Object object;
    for (const auto& [key, provider] : routes) {
        object.emplace(key, provider);
    }
    return object;
}

} // namespace

LLMRouting::LLMRouting() : LLMRouting(std::string(fallbackLLMProvider)) {}

LLMRouting::LLMRouting(std::string naming, std::optional<std::string> defaultRoute,
                       LLMRouteMap roles, LLMRouteMap workflows, LLMRouteMap steps)
    : defaultProvider(defaultRoute ? std::move(*defaultRoute) : naming),
      namingProposal(std::move(naming)), additionalRoutes(std::move(roles)),
      workflowDefaults(std::move(workflows)), stepRoutes(std::move(steps)) {}

std::string LLMRouting::provider(std::string_view role) const {
    if (role == namingProposalRole) {
        return namingProposal;
    }
    return lookup(additionalRoutes, role).value_or(defaultProvider);
}

LLMRouting LLMRouting::settingRole(std::string_view role, std::string provider) const {
    LLMRouting changed = *this;
    if (role == namingProposalRole) {
        changed.namingProposal = std::move(provider);
    } else {
        changed.additionalRoutes.insert_or_assign(std::string(role), std::move(provider));
    }
    return changed;
}

std::optional<std::string> LLMRouting::workflowDefault(std::string_view workflowID) const {
    return lookup(workflowDefaults, workflowID);
}

LLMRouting LLMRouting::settingWorkflowDefault(std::string_view workflowID,
                                              std::string provider) const {
    LLMRouting changed = *this;
    changed.workflowDefaults.insert_or_assign(std::string(workflowID), std::move(provider));
    return changed;
}

std::optional<std::string> LLMRouting::stepProvider(std::string_view workflowID,
                                                    std::string_view stepID) const {
    return lookup(stepRoutes, stepRouteKey(workflowID, stepID));
}

LLMRouting LLMRouting::settingStepProvider(std::string_view workflowID, std::string_view stepID,
                                           std::optional<std::string_view> provider) const {
    LLMRouting changed = *this;
    const auto key = stepRouteKey(workflowID, stepID);
    std::string value = provider ? trimmed(*provider) : std::string();
    if (value.empty()) {
        changed.stepRoutes.erase(key);
    } else {
        changed.stepRoutes.insert_or_assign(key, std::move(value));
    }
    return changed;
}

std::string LLMRouting::stepRouteKey(std::string_view workflowID, std::string_view stepID) {
    std::string key(workflowID);
    key += '.';
    key += stepID;
    return key;
}

ClientProfileError::ClientProfileError(Kind kind, std::string role)
    : Error("Can't save the LLM route of the role '" + role + "': llm_routing uses '" + role +
            "' for its own setting. Choose another role name."),
      kind_(kind), role_(std::move(role)) {}

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
    const auto& routing = profile.llmRouting;
    WorkflowValue::Object llmRouting = routeObject(routing.additionalRoutes);
    llmRouting.insert_or_assign(std::string(defaultKey), routing.defaultProvider);
    llmRouting.insert_or_assign(std::string(namingProposalRole), routing.namingProposal);
    if (!routing.workflowDefaults.empty()) {
        llmRouting.insert_or_assign(std::string(workflowsKey),
                                    routeObject(routing.workflowDefaults));
    }
    if (!routing.stepRoutes.empty()) {
        llmRouting.insert_or_assign(std::string(stepsKey), routeObject(routing.stepRoutes));
    }
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
        {"llm_routing", std::move(llmRouting)},
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
