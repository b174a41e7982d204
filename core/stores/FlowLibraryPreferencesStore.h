#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/Error.h"
#include "core/stores/FlowLibraryPreferences.h"

#include <filesystem>
#include <mutex>
#include <optional>

namespace quorlin {

// The preferences file is there but isn't a document: not JSON, or a key of the wrong
// shape. The text names the file and what is wrong.
class FlowLibraryPreferencesError : public Error {
public:
    FlowLibraryPreferencesError(const std::filesystem::path& file, const std::string& detail);
};

// Reads and writes flow-library-preferences.json in the data root. Calls on one store
// run one at a time; any number of stores may point at the same file, each write being
// atomic.
class FlowLibraryPreferencesStore {
public:
    explicit FlowLibraryPreferencesStore(AppSupportPaths paths);

    std::filesystem::path preferencesPath() const;

    // The document in the file, or none when there is no file. A file that can't be
    // decoded throws FlowLibraryPreferencesError and is left as it is; FileError when it
    // can't be read.
    std::optional<FlowLibraryPreferencesDocument> loadIfPresent() const;

    // Writes the document atomically, pretty-printed with sorted keys. Throws FileError.
    void save(const FlowLibraryPreferencesDocument& document) const;

private:
    AppSupportPaths paths_;
    mutable std::mutex mutex_;
};

} // namespace quorlin
