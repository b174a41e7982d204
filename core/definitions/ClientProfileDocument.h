#pragma once

#include "core/definitions/ClientProfileError.h"
#include "core/definitions/LLMRouting.h"
#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

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
