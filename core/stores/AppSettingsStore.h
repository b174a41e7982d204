#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/stores/AppSettings.h"

#include <filesystem>
#include <mutex>
#include <optional>

namespace quorlin {

// Reads and writes app-settings.json in the data root. The file holds the Anthropic key
// and the client secret, so it is only ever readable by the user: it is written with
// mode 0600, and a data root the store has to create gets mode 0700. Calls on one store
// run one at a time.
class AppSettingsStore {
public:
    explicit AppSettingsStore(AppSupportPaths paths,
                              GoogleClientCredentials credentials = builtInGoogleCredentials());

    // Where the settings live; creates the data root (0700), not the file.
    std::filesystem::path settingsPath() const;

    // The settings in the file, or the defaults when there is no file. Writes nothing:
    // whoever wants the defaults on disk saves them.
    // Throws AppSettingsError (invalidJson, invalidSettings) for a file that does not
    // decode, FileError for one that cannot be read. The file is then left exactly as it
    // is, and this store refuses to save over it until it decodes again or is gone.
    AppSettings load() const;

    // Like load, but none when there is no file.
    std::optional<AppSettings> loadIfPresent() const;

    // Writes the settings atomically (mode 0600, replacing the file's mode too).
    // Throws FileError; AppSettingsError (saveRefused) when the last load found the file
    // undecodable and it still is, so a failed load never ends in defaults written over
    // the user's settings.
    void save(const AppSettings& settings) const;

private:
    std::optional<AppSettings> read(const std::filesystem::path& file) const;

    AppSupportPaths paths_;
    GoogleClientCredentials credentials_;
    mutable std::mutex mutex_;
    mutable bool lastLoadFailed_ = false;
};

} // namespace quorlin
