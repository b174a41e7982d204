#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/Error.h"
#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

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

struct Approvers {
    std::string owner;
    friend bool operator==(const Approvers&, const Approvers&) = default;
};

struct GmailProfile {
    std::string account;
    std::string authMethod;
    std::string searchQuery;
    std::optional<std::string> targetYearMonth; // e.g. "2026-03"; absent: the current month
    friend bool operator==(const GmailProfile&, const GmailProfile&) = default;
};

// Paths stay as the user wrote them, "~" included; code that uses one expands it.
struct PathProfile {
    std::string receiptsRoot;
    std::string folderNameTemplate;
    friend bool operator==(const PathProfile&, const PathProfile&) = default;
};

struct ClientProfile {
    std::string clientName;
    Approvers approvers;
    GmailProfile gmail;
    PathProfile paths;
    LLMRouting llmRouting;
    std::int64_t monthlyLLMBudgetUSD = 0;
    friend bool operator==(const ClientProfile&, const ClientProfile&) = default;
};

// client_profile.yml: the user's own file, one key "client_profile".
struct ClientProfileDocument {
    ClientProfile clientProfile;
    friend bool operator==(const ClientProfileDocument&, const ClientProfileDocument&) = default;
};

// A profile that can't be written as a file that reads back the same.
class ClientProfileError : public Error {
public:
    enum class Kind { reservedRoutingRole };

    // role: the route whose name llm_routing keeps for itself ("default", "workflows", ...).
    ClientProfileError(Kind kind, std::string role);

    Kind kind() const { return kind_; }
    const std::string& role() const { return role_; }

private:
    Kind kind_;
    std::string role_;
};

// Every key is required except target_year_month; a missing key or a value of the wrong
// shape fails the whole document with a DecodingError naming where. llm_routing is an
// open mapping: "default" (or "default_provider"), "naming_proposal", "workflows" and
// "steps" are its own, every other key routes one role. Unknown keys elsewhere are
// ignored.
ClientProfileDocument decodeClientProfileDocument(const YamlNode& root);
ClientProfileDocument decodeClientProfileDocumentYaml(std::string_view text);

// The file text: keys in record order, target_year_month only when present; llm_routing
// as "default", "naming_proposal", the other roles sorted, then "workflows" and "steps"
// when they hold any. Throws ClientProfileError for a role that would collide with one
// of llm_routing's own keys.
std::string encodeClientProfileDocumentYaml(const ClientProfileDocument& document);

// The profile as a value tree under its file keys (client_name, gmail.search_query,
// llm_routing.default, ...), the shape that profile templates look into.
WorkflowValue toWorkflowValue(const ClientProfile& profile);

// Walks a value tree by a dotted path ("gmail.search_query"), empty pieces skipped; each
// step must land on an object that has the key. nullptr when it doesn't; an empty path
// gives the tree itself.
const WorkflowValue* findValueAtPath(const WorkflowValue& tree, std::string_view dottedPath);

} // namespace quorlin
