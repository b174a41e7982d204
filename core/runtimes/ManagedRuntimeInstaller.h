#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/foundation/Error.h"
#include "core/foundation/HttpDownload.h"
#include "core/foundation/HttpTransport.h"
#include "core/runtimes/ManagedRuntimeCatalog.h"

#include <functional>
#include <memory>
#include <stop_token>
#include <string>

namespace quorlin {

// Why a runtime could not be installed. Every case leaves the managed runtimes folder as
// it was before the install began.
class RuntimeInstallError : public Error {
public:
    enum class Kind {
        downloadFailed,   // the archive or its checksum list could not be fetched
        checksumMissing,  // the publisher's list has no line for the archive
        checksumMismatch, // the archive is not the one published
        unpackFailed,     // the archive is damaged or holds what may not be unpacked
        noExecutable,     // unpacked, but without the interpreter where it should be
    };

    RuntimeInstallError(Kind kind, const std::string& detail);
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

struct RuntimeInstallProgress {
    enum class Stage { downloading, verifying, unpacking };
    Stage stage = Stage::downloading;
    DownloadProgress download; // for downloading
};

using RuntimeInstallProgressCallback = std::function<void(const RuntimeInstallProgress&)>;

// Puts a managed Python or Node build under the data root. The archive is downloaded
// into a staging folder beside the runtime's folder, checked against its SHA-256 (the
// catalogue's, or the publisher's checksum list's) and unpacked there; only a complete,
// verified build is renamed into place. A failure, a stop, or a crash at any point never
// leaves a half-installed runtime, and a staging folder left by a crash is cleared by the
// next install.
class ManagedRuntimeInstaller {
public:
    ManagedRuntimeInstaller(
        AppSupportPaths paths, std::shared_ptr<HttpDownloading> downloader,
        std::shared_ptr<HttpTransport> transport,
        RuntimeCatalogSources sources = RuntimeCatalogSources::fromEnvironment());

    // The install's log text: what was installed and where, or that it already was.
    // Throws RuntimeInstallError, RuntimeCatalogError, HttpError(cancelled) on a stop, or
    // FileError when the data root can't be written.
    std::string install(ScriptRuntime runtime, const RuntimeInstallProgressCallback& progress,
                        const std::stop_token& stopToken) const;

private:
    std::string expectedChecksum(const ManagedRuntimeDescriptor& descriptor,
                                 const std::stop_token& stopToken) const;

    AppSupportPaths paths_;
    std::shared_ptr<HttpDownloading> downloader_;
    std::shared_ptr<HttpTransport> transport_;
    RuntimeCatalogSources sources_;
};

// The checksum for archiveName in a publisher's list ("<hex>  <name>" per line, the name
// possibly marked "*" for binary, or prefixed by a folder); nothing when it isn't listed.
std::optional<std::string> checksumFromList(std::string_view list, std::string_view archiveName);

// The checksum the publisher's list at listURL gives for archiveName; nothing when it
// lists no such file. Throws HttpError when the list can't be fetched.
std::optional<std::string> publishedChecksum(HttpTransport& transport, const std::string& listURL,
                                             std::string_view archiveName,
                                             const std::stop_token& stopToken);

} // namespace quorlin
