#include "ClientProfileStore.h"

#include "core/foundation/AtomicFile.h"

#include <cstdlib>
#include <system_error>

namespace quorlin {

namespace {

constexpr std::string_view receiptsWorkflowID = "receipts-to-folder-v1";
constexpr std::string_view receiptsOutputSettingKey = "receipts_output_folder";

std::string describe(ClientProfileStoreError::Kind kind, const std::filesystem::path& expected) {
    switch (kind) {
    case ClientProfileStoreError::Kind::defaultProfileMissing:
        return expected.empty()
                   ? "The default client profile is missing: Quorlin's resource folder wasn't "
                     "found."
                   : "The default client profile is missing: " + expected.string() +
                         " doesn't exist.";
    }
    return {};
}

// The path with "~" for the home directory when it lies below it, so the profile reads
// as the user would write it and survives a renamed home.
std::string abbreviatingHome(const std::filesystem::path& path) {
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') {
        return path.string();
    }
    const auto homePath = std::filesystem::path(home).lexically_normal();
    // A home of "/" would turn every path into "~/..."; that helps nobody.
    if (!homePath.is_absolute() || homePath == homePath.root_path()) {
        return path.string();
    }
    const auto relative = path.lexically_relative(homePath);
    if (relative.empty() || *relative.begin() == "..") {
        return path.string();
    }
    if (relative == ".") {
        return "~";
    }
    return "~/" + relative.string();
}

} // namespace

ClientProfileStoreError::ClientProfileStoreError(Kind kind, std::filesystem::path expectedPath)
    : Error(describe(kind, expectedPath)), kind_(kind), expectedPath_(std::move(expectedPath)) {}

ClientProfileStore::ClientProfileStore(AppSupportPaths paths) : paths_(std::move(paths)) {}

std::filesystem::path ClientProfileStore::profilePath() const {
    return paths_.clientProfilePath();
}

ClientProfileDocument
ClientProfileStore::loadOrCreateDefault(const QuorlinResources& resources) const {
    const std::scoped_lock lock(mutex_);
    const auto file = profilePath();
    std::error_code error;
    const auto status = std::filesystem::symlink_status(file, error);
    // Only a file that isn't there at all is created; one that can't be looked at, read or
    // decoded surfaces its error and stays untouched.
    if (status.type() != std::filesystem::file_type::not_found && error) {
        throw FileError(FileError::Kind::readFailed, file, error.message());
    }
    if (status.type() == std::filesystem::file_type::not_found) {
        if (!resources.resourceDirectory) {
            throw ClientProfileStoreError(ClientProfileStoreError::Kind::defaultProfileMissing, {});
        }
        const auto example =
            *resources.resourceDirectory / "Defaults" / "client_profile.example.yaml";
        if (!std::filesystem::is_regular_file(example, error)) {
            throw ClientProfileStoreError(ClientProfileStoreError::Kind::defaultProfileMissing,
                                          example);
        }
        writeFileAtomically(file, readFile(example));
    }
    return migrateLegacyDefaultIfNeeded(decodeClientProfileDocumentYaml(readFile(file)), file);
}

ClientProfileDocument ClientProfileStore::load(const std::filesystem::path& file) const {
    const std::scoped_lock lock(mutex_);
    return decodeClientProfileDocumentYaml(readFile(file));
}

void ClientProfileStore::save(const ClientProfileDocument& document) const {
    const std::scoped_lock lock(mutex_);
    // Encoding first: a profile that can't be written leaves the file as it was.
    const auto text = encodeClientProfileDocumentYaml(document);
    writeFileAtomically(profilePath(), text);
}

std::string ClientProfileStore::migratedReceiptsRoot() const {
    const auto folder =
        paths_.workflowOutputDirectory(receiptsWorkflowID, receiptsOutputSettingKey);
    return abbreviatingHome(std::filesystem::absolute(folder).lexically_normal());
}

ClientProfileDocument
ClientProfileStore::migrateLegacyDefaultIfNeeded(ClientProfileDocument document,
                                                 const std::filesystem::path& file) const {
    // The literal text decides, before any "~" is expanded: a user who typed this very
    // path is moved as well.
    auto& receiptsRoot = document.clientProfile.paths.receiptsRoot;
    if (receiptsRoot != legacyReceiptsRoot) {
        return document;
    }
    receiptsRoot = migratedReceiptsRoot();
    writeFileAtomically(file, encodeClientProfileDocumentYaml(document));
    return document;
}

} // namespace quorlin
