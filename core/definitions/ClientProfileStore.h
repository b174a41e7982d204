#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ClientProfileDocument.h"
#include "core/definitions/QuorlinResources.h"
#include "core/foundation/Error.h"

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>

namespace quorlin {

class ClientProfileStoreError : public Error {
public:
    enum class Kind { defaultProfileMissing };

    // expectedPath: where the shipped profile was looked for; empty when the program's
    // resource folder itself wasn't found.
    ClientProfileStoreError(Kind kind, std::filesystem::path expectedPath);

    Kind kind() const { return kind_; }
    const std::filesystem::path& expectedPath() const { return expectedPath_; }

private:
    Kind kind_;
    std::filesystem::path expectedPath_;
};

// Reads and writes client_profile.yml in the data root. The first load creates it from
// the profile shipped in the resources (Defaults/client_profile.example.yaml). Calls on
// one store run one at a time, so a save never interleaves with a load that migrates.
class ClientProfileStore {
public:
    // The receipts folder of early versions, in the user's documents. A profile that still
    // names it (by this exact text) is moved to the receipts workflow's managed output
    // folder on load.
    static constexpr std::string_view legacyReceiptsRoot = "~/Documents/Quorlin/Receipts";

    explicit ClientProfileStore(AppSupportPaths paths);

    // Where the profile lives; creates the data root, not the file.
    std::filesystem::path profilePath() const;

    // Loads the profile, creating it from the shipped default when there is none. A file
    // that fails to read or decode is reported and left exactly as it is.
    // Throws ClientProfileStoreError, FileError, YamlError, DecodingError.
    ClientProfileDocument loadOrCreateDefault(const QuorlinResources& resources) const;

    // Reads and decodes one profile file; writes nothing.
    ClientProfileDocument load(const std::filesystem::path& file) const;

    // Writes the profile atomically as UTF-8.
    void save(const ClientProfileDocument& document) const;

    // What legacyReceiptsRoot becomes: the receipts workflow's output folder under the data
    // root, written with "~" when the root lies under $HOME. The folder is created, as every
    // workflow folder AppSupportPaths hands out is.
    std::string migratedReceiptsRoot() const;

private:
    ClientProfileDocument migrateLegacyDefaultIfNeeded(ClientProfileDocument document,
                                                       const std::filesystem::path& file) const;

    AppSupportPaths paths_;
    mutable std::mutex mutex_;
};

} // namespace quorlin
