#include "core/stores/FlowLibraryPreferences.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Text.h"

#include <set>

namespace quorlin {

namespace {

using Json = nlohmann::json;

// A member's coding path below its parent's: "folders[1]" plus "id".
std::string below(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

std::string at(const std::string& path, std::size_t index) {
    return path + "[" + std::to_string(index) + "]";
}

[[noreturn]] void mismatch(const Json& value, const std::string& path, std::string expected) {
    std::string found = value.dump();
    if (found.size() > 80) {
        found = found.substr(0, 77) + "...";
    }
    throw DecodingError(DecodingError::Kind::typeMismatch, path, std::move(expected), found);
}

const Json& member(const Json& object, std::string_view key, const std::string& path) {
    const auto found = object.find(key);
    if (found == object.end()) {
        throw DecodingError(DecodingError::Kind::keyNotFound, path, std::string(key));
    }
    return *found;
}

const Json& objectAt(const Json& value, const std::string& path) {
    if (!value.is_object()) {
        mismatch(value, path, "an object");
    }
    return value;
}

std::string text(const Json& value, const std::string& path) {
    if (!value.is_string()) {
        mismatch(value, path, "text");
    }
    return value.get<std::string>();
}

std::vector<std::string> texts(const Json& value, const std::string& path) {
    if (!value.is_array()) {
        mismatch(value, path, "an array");
    }
    std::vector<std::string> items;
    for (std::size_t index = 0; index < value.size(); ++index) {
        items.push_back(text(value[index], at(path, index)));
    }
    return items;
}

FlowLibraryFolder decodeFolder(const Json& value, const std::string& path) {
    objectAt(value, path);
    const auto idPath = below(path, "id");
    const auto id = Uuid::parse(text(member(value, "id", path), idPath));
    if (!id) {
        mismatch(value.at("id"), idPath, "a UUID");
    }
    return {*id, text(member(value, "name", path), below(path, "name")),
            texts(member(value, "flowIDs", path), below(path, "flowIDs"))};
}

WorkflowSchedulePreference decodeSchedule(const Json& value, const std::string& path) {
    objectAt(value, path);
    const Json& enabled = member(value, "isEnabled", path);
    if (!enabled.is_boolean()) {
        mismatch(enabled, below(path, "isEnabled"), "a boolean");
    }
    return {enabled.get<bool>(),
            text(member(value, "cronExpression", path), below(path, "cronExpression"))};
}

WorkflowFolderPreference decodeFolderPreference(const Json& value, const std::string& path) {
    objectAt(value, path);
    WorkflowFolderPreference preference{text(member(value, "path", path), below(path, "path")),
                                        std::nullopt};
    if (const auto bookmark = value.find("securityScopedBookmark");
        bookmark != value.end() && !bookmark->is_null()) {
        preference.securityScopedBookmark = text(*bookmark, below(path, "securityScopedBookmark"));
    }
    return preference;
}

// The member's value when present and not null.
const Json* optionalMember(const Json& object, std::string_view key) {
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

// An id is kept where it first stands among the available ones; later places lose it.
class Placement {
public:
    explicit Placement(const std::vector<std::string>& available)
        : available_(available.begin(), available.end()) {}

    std::vector<std::string> keep(const std::vector<std::string>& ids) {
        std::vector<std::string> kept;
        for (const auto& id : ids) {
            if (available_.contains(id) && seen_.insert(id).second) {
                kept.push_back(id);
            }
        }
        return kept;
    }

private:
    std::set<std::string, std::less<>> available_;
    std::set<std::string, std::less<>> seen_;
};

} // namespace

FlowLibraryPreferencesDocument
FlowLibraryPreferencesDocument::normalized(const std::vector<std::string>& availableFlowIDs) const {
    FlowLibraryPreferencesDocument result;
    Placement placement(availableFlowIDs);
    for (const auto& folder : folders) {
        auto name = trimmed(folder.name);
        if (!name.empty()) {
            result.folders.push_back({folder.id, std::move(name), placement.keep(folder.flowIDs)});
        }
    }
    result.uncategorizedFlowIDs = placement.keep(uncategorizedFlowIDs);
    for (auto& id : placement.keep(availableFlowIDs)) {
        result.uncategorizedFlowIDs.push_back(std::move(id));
    }
    const std::set<std::string, std::less<>> available(availableFlowIDs.begin(),
                                                       availableFlowIDs.end());
    for (const auto& [id, schedule] : schedulePreferences) {
        if (available.contains(id)) {
            result.schedulePreferences.emplace(id, schedule);
        }
    }
    for (const auto& [id, settings] : folderPreferences) {
        if (!available.contains(id)) {
            continue;
        }
        auto& kept = result.folderPreferences[id];
        for (const auto& [key, preference] : settings) {
            if (trimmed(preference.path).empty()) {
                continue;
            }
            WorkflowFolderPreference cleaned{preference.path, std::nullopt};
            if (preference.securityScopedBookmark) {
                if (auto bookmark = trimmed(*preference.securityScopedBookmark);
                    !bookmark.empty()) {
                    cleaned.securityScopedBookmark = std::move(bookmark);
                }
            }
            kept.emplace(key, std::move(cleaned));
        }
    }
    return result;
}

nlohmann::json flowLibraryPreferencesJson(const FlowLibraryPreferencesDocument& document) {
    Json folders = Json::array();
    for (const auto& folder : document.folders) {
        folders.push_back({{"id", folder.id.uppercaseString()},
                           {"name", folder.name},
                           {"flowIDs", folder.flowIDs}});
    }
    Json schedules = Json::object();
    for (const auto& [id, schedule] : document.schedulePreferences) {
        schedules[id] = {{"isEnabled", schedule.isEnabled},
                         {"cronExpression", schedule.cronExpression}};
    }
    Json choices = Json::object();
    for (const auto& [id, settings] : document.folderPreferences) {
        Json byKey = Json::object();
        for (const auto& [key, preference] : settings) {
            Json entry{{"path", preference.path}};
            if (preference.securityScopedBookmark) {
                entry["securityScopedBookmark"] = *preference.securityScopedBookmark;
            }
            byKey[key] = std::move(entry);
        }
        choices[id] = std::move(byKey);
    }
    return {{"folders", std::move(folders)},
            {"uncategorizedFlowIDs", document.uncategorizedFlowIDs},
            {"schedulePreferences", std::move(schedules)},
            {"folderPreferences", std::move(choices)}};
}

FlowLibraryPreferencesDocument decodeFlowLibraryPreferences(const nlohmann::json& json) {
    objectAt(json, "");
    FlowLibraryPreferencesDocument document;
    if (const auto* folders = optionalMember(json, "folders")) {
        if (!folders->is_array()) {
            mismatch(*folders, "folders", "an array");
        }
        for (std::size_t index = 0; index < folders->size(); ++index) {
            document.folders.push_back(decodeFolder((*folders)[index], at("folders", index)));
        }
    }
    if (const auto* ids = optionalMember(json, "uncategorizedFlowIDs")) {
        document.uncategorizedFlowIDs = texts(*ids, "uncategorizedFlowIDs");
    }
    if (const auto* schedules = optionalMember(json, "schedulePreferences")) {
        for (const auto& [id, value] : objectAt(*schedules, "schedulePreferences").items()) {
            document.schedulePreferences.emplace(
                id, decodeSchedule(value, below("schedulePreferences", id)));
        }
    }
    if (const auto* choices = optionalMember(json, "folderPreferences")) {
        for (const auto& [id, settings] : objectAt(*choices, "folderPreferences").items()) {
            const auto path = below("folderPreferences", id);
            auto& byKey = document.folderPreferences[id];
            for (const auto& [key, value] : objectAt(settings, path).items()) {
                byKey.emplace(key, decodeFolderPreference(value, below(path, key)));
            }
        }
    }
    return document;
}

} // namespace quorlin
