#include "AppSettingsStore.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/stores/AppSettingsCoding.h"
#include "core/stores/AppSettingsError.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <system_error>
#include <vector>

namespace quorlin {

namespace {

constexpr mode_t privateDirectoryMode = 0700;

[[noreturn]] void throwSystemError(FileError::Kind kind, const std::filesystem::path& path) {
    throw FileError(kind, path, std::strerror(errno));
}

// Creates the folders of path that are missing, each readable by the user alone. Folders
// that exist keep their mode: they may be shared ones such as ~/.local/share.
void createPrivateDirectories(const std::filesystem::path& path) {
    std::vector<std::filesystem::path> missing;
    for (auto folder = path; !folder.empty(); folder = folder.parent_path()) {
        std::error_code error;
        if (std::filesystem::exists(folder, error) || folder == folder.parent_path()) {
            break;
        }
        missing.push_back(folder);
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        if (::mkdir(folder->c_str(), privateDirectoryMode) != 0) {
            // Someone else may have made it in between; that one is theirs to keep.
            if (errno == EEXIST && std::filesystem::is_directory(*folder)) {
                continue;
            }
            throwSystemError(FileError::Kind::createDirectoryFailed, *folder);
        }
        // The umask may have taken more than asked; exactly 0700 is wanted.
        if (::chmod(folder->c_str(), privateDirectoryMode) != 0) {
            throwSystemError(FileError::Kind::createDirectoryFailed, *folder);
        }
    }
}

} // namespace

AppSettingsStore::AppSettingsStore(AppSupportPaths paths, GoogleClientCredentials credentials)
    : paths_(std::move(paths)), credentials_(std::move(credentials)) {}

std::filesystem::path AppSettingsStore::settingsPath() const {
    // Made here first, so that AppSupportPaths finds it and doesn't create it world-readable.
    createPrivateDirectories(paths_.root());
    return paths_.appSettingsPath();
}

std::optional<AppSettings> AppSettingsStore::read(const std::filesystem::path& file) const {
    std::error_code error;
    const auto status = std::filesystem::symlink_status(file, error);
    if (status.type() == std::filesystem::file_type::not_found) {
        return std::nullopt;
    }
    if (error) {
        throw FileError(FileError::Kind::readFailed, file, error.message());
    }
    const auto text = readFile(file);
    nlohmann::json json;
    try {
        json = parseJson(text);
    } catch (const JsonError& parseError) {
        throw AppSettingsError::file(AppSettingsError::Kind::invalidJson, file,
                                     parseError.detail());
    }
    try {
        return decodeAppSettings(json, credentials_);
    } catch (const DecodingError& decodingError) {
        throw AppSettingsError::file(AppSettingsError::Kind::invalidSettings, file,
                                     decodingError.what());
    }
}

std::optional<AppSettings> AppSettingsStore::loadIfPresent() const {
    const std::scoped_lock lock(mutex_);
    try {
        auto settings = read(settingsPath());
        lastLoadFailed_ = false;
        return settings;
    } catch (const Error&) {
        lastLoadFailed_ = true;
        throw;
    }
}

AppSettings AppSettingsStore::load() const {
    return loadIfPresent().value_or(defaultAppSettings(credentials_));
}

void AppSettingsStore::save(const AppSettings& settings) const {
    const std::scoped_lock lock(mutex_);
    const auto file = settingsPath();
    if (lastLoadFailed_) {
        // Looked at again: the user may have corrected or removed the file since.
        try {
            read(file);
        } catch (const AppSettingsError& error) {
            throw AppSettingsError::file(AppSettingsError::Kind::saveRefused, file, error.detail());
        } catch (const Error& error) {
            throw AppSettingsError::file(AppSettingsError::Kind::saveRefused, file, error.what());
        }
        lastLoadFailed_ = false;
    }
    writeFileAtomically(file, encodeAppSettings(settings), privateFileMode);
}

} // namespace quorlin
