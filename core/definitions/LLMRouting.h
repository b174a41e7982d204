#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

class YamlWriter;

using LLMRouteMap = std::map<std::string, std::string, std::less<>>;

// The provider of a role nobody routed, and what an empty llm_routing reads as.
inline constexpr std::string_view fallbackLLMProvider = "claude-sonnet";
// The role whose provider is kept apart from the other roles' routes.
inline constexpr std::string_view namingProposalRole = "naming_proposal";

// Which LLM provider serves which role, workflow and step. The provider words themselves
// ("claude-sonnet", "ollama:qwen2.5:7b") mean nothing here; the LLM step reads them.
// The changing operations return a changed copy.
struct LLMRouting {
    std::string defaultProvider;
    std::string namingProposal;
    LLMRouteMap additionalRoutes; // role to provider, naming_proposal never among them
    LLMRouteMap workflowDefaults; // workflow id to provider
    LLMRouteMap stepRoutes;       // "<workflow id>.<step id>" to provider

    // Both providers fallbackLLMProvider.
    LLMRouting();
    // An absent default route becomes the naming provider as well.
    explicit LLMRouting(std::string naming, std::optional<std::string> defaultRoute = std::nullopt,
                        LLMRouteMap roles = {}, LLMRouteMap workflows = {}, LLMRouteMap steps = {});

    // naming_proposal: namingProposal; any other role: its route, else defaultProvider.
    std::string provider(std::string_view role) const;
    // Sets namingProposal for naming_proposal, the role's route otherwise; the default
    // provider is never touched.
    LLMRouting settingRole(std::string_view role, std::string provider) const;

    std::optional<std::string> workflowDefault(std::string_view workflowID) const;
    LLMRouting settingWorkflowDefault(std::string_view workflowID, std::string provider) const;

    std::optional<std::string> stepProvider(std::string_view workflowID,
                                            std::string_view stepID) const;
    // Stores the provider trimmed; an absent or blank one removes the step's route.
    LLMRouting settingStepProvider(std::string_view workflowID, std::string_view stepID,
                                   std::optional<std::string_view> provider) const;

    // The key of a step route. It is only ever composed, never split, so ids that hold
    // dots stay exact.
    static std::string stepRouteKey(std::string_view workflowID, std::string_view stepID);

    friend bool operator==(const LLMRouting&, const LLMRouting&) = default;
};

// The llm_routing mapping of client_profile.yml, the part of the profile file that is
// LLMRouting's own. An open mapping: "default" (or "default_provider"), "naming_proposal",
// "workflows" and "steps" are its own keys, every other key routes one role. A value of
// the wrong shape throws DecodingError naming path.
LLMRouting decodeLLMRouting(const YamlNode& node, const std::string& path);

// Writes the mapping as "default", "naming_proposal", the other roles sorted, then
// "workflows" and "steps" when they hold any. Throws ClientProfileError for a role that
// would collide with one of the mapping's own keys, before anything is written.
void writeLLMRouting(YamlWriter& writer, const LLMRouting& routing);

// The routing as a value tree under the same keys the file uses.
WorkflowValue toWorkflowValue(const LLMRouting& routing);

} // namespace quorlin
