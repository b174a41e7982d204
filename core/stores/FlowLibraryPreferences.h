#pragma once

#include "core/foundation/Uuid.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin {

// A named folder of the flow library, with its flows in display order.
struct FlowLibraryFolder {
    Uuid id;
    std::string name;
    std::vector<std::string> flowIDs;
    friend bool operator==(const FlowLibraryFolder&, const FlowLibraryFolder&) = default;
};

// The user's own schedule of a workflow; an empty expression leaves the workflow's own.
struct WorkflowSchedulePreference {
    bool isEnabled = false;
    std::string cronExpression;
    friend bool operator==(const WorkflowSchedulePreference&,
                           const WorkflowSchedulePreference&) = default;
};

// A folder or file the user chose for one of a workflow's settings. On Linux the path is
// all it takes to reach it again; the bookmark is read and written only so that a file
// shared with another build of the app keeps what it holds.
struct WorkflowFolderPreference {
    std::string path;
    std::optional<std::string> securityScopedBookmark;
    friend bool operator==(const WorkflowFolderPreference&,
                           const WorkflowFolderPreference&) = default;
};

// flow-library-preferences.json: how the user arranged the library, the schedules they
// set and the folders they chose, by workflow id.
struct FlowLibraryPreferencesDocument {
    std::vector<FlowLibraryFolder> folders;
    std::vector<std::string> uncategorizedFlowIDs;
    std::map<std::string, WorkflowSchedulePreference> schedulePreferences;
    std::map<std::string, std::map<std::string, WorkflowFolderPreference>> folderPreferences;

    // The document brought into line with the flows there are now: every available flow in
    // exactly one place (the first folder that lists it, else the uncategorized list, new
    // ones appended there in the order given), folders with a blank name dissolved, and
    // the preferences of flows that are gone dropped. Pure; nothing is saved.
    FlowLibraryPreferencesDocument
    normalized(const std::vector<std::string>& availableFlowIDs) const;

    friend bool operator==(const FlowLibraryPreferencesDocument&,
                           const FlowLibraryPreferencesDocument&) = default;
};

// The document as JSON, keys equal to the field names, folder ids in upper case.
nlohmann::json flowLibraryPreferencesJson(const FlowLibraryPreferencesDocument& document);

// Each of the document's four keys may be missing and then is empty; inside them every key
// is required except a folder preference's bookmark. Throws DecodingError naming the key
// ("folders[1].id").
FlowLibraryPreferencesDocument decodeFlowLibraryPreferences(const nlohmann::json& json);

} // namespace quorlin
