#include "core/stores/FlowLibraryPreferencesStore.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"

#include <system_error>

namespace quorlin {

FlowLibraryPreferencesError::FlowLibraryPreferencesError(const std::filesystem::path& file,
                                                         const std::string& detail)
    : Error("The flow library preferences in " + file.string() + " can't be read: " + detail) {}

FlowLibraryPreferencesStore::FlowLibraryPreferencesStore(AppSupportPaths paths)
    : paths_(std::move(paths)) {}

std::filesystem::path FlowLibraryPreferencesStore::preferencesPath() const {
    return paths_.flowLibraryPreferencesPath();
}

std::optional<FlowLibraryPreferencesDocument> FlowLibraryPreferencesStore::loadIfPresent() const {
    const std::scoped_lock lock(mutex_);
    const auto file = preferencesPath();
    std::error_code error;
    if (std::filesystem::symlink_status(file, error).type() ==
        std::filesystem::file_type::not_found) {
        return std::nullopt;
    }
    nlohmann::json json;
    try {
        json = parseJson(readFile(file));
    } catch (const JsonError& invalid) {
        throw FlowLibraryPreferencesError(file, invalid.detail());
    }
    try {
        return decodeFlowLibraryPreferences(json);
    } catch (const DecodingError& invalid) {
        throw FlowLibraryPreferencesError(file, invalid.what());
    }
}

void FlowLibraryPreferencesStore::save(const FlowLibraryPreferencesDocument& document) const {
    const std::scoped_lock lock(mutex_);
    writeFileAtomically(preferencesPath(),
                        prettySortedJson(flowLibraryPreferencesJson(document)) + "\n");
}

} // namespace quorlin
