#include "LLMRouting.h"

#include "core/definitions/ClientProfileError.h"
#include "core/definitions/RecordDecoding.h"
#include "core/foundation/Text.h"
#include "core/foundation/YamlWriter.h"

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

void writeRouteMap(YamlWriter& writer, std::string_view key, const LLMRouteMap& routes) {
    writer.key(key);
    writer.beginMapping();
    for (const auto& [name, provider] : routes) {
        writer.key(name);
        writer.string(provider);
    }
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

WorkflowValue toWorkflowValue(const LLMRouting& routing) {
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
    return llmRouting;
}

} // namespace quorlin
