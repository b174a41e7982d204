#include "core/runtimes/ManagedRuntimeInstaller.h"

#include "core/foundation/Archive.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/FileLock.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/ScratchDirectory.h"
#include "core/foundation/Sha256.h"
#include "core/foundation/Text.h"

#include <chrono>
#include <sstream>
#include <system_error>
#include <thread>

namespace quorlin {

namespace {

constexpr std::string_view stagingPrefix = ".tmp-";
constexpr std::size_t checksumListLimit = 4 << 20;
// Far above a Python or Node build (about 50k files, 250 MB unpacked), far below a disk.
constexpr ArchiveLimits runtimeArchiveLimits{500'000, std::uint64_t{4} << 30U};

std::string describe(RuntimeInstallError::Kind kind, const std::string& detail) {
    using Kind = RuntimeInstallError::Kind;
    switch (kind) {
    case Kind::downloadFailed:
        return "Failed to download runtime: " + detail;
    case Kind::checksumMissing:
    case Kind::checksumMismatch:
    case Kind::unpackFailed:
    case Kind::noExecutable:
        return detail;
    }
    return detail;
}

// The interpreter in a tree, found as the locator finds it in an installed runtime.
std::optional<std::filesystem::path> findExecutable(const std::filesystem::path& root,
                                                    const ManagedRuntimeDescriptor& descriptor) {
    std::error_code error;
    for (std::filesystem::recursive_directory_iterator walk(root, error), end;
         !error && walk != end; walk.increment(error)) {
        if (walk->path().filename().string().starts_with(".")) {
            if (walk->is_directory(error)) {
                walk.disable_recursion_pending();
            }
            continue;
        }
        if (!walk->is_regular_file(error)) {
            continue;
        }
        const auto relative = walk->path().lexically_relative(root).generic_string();
        for (const auto& suffix : descriptor.executableSuffixes) {
            if (relative.ends_with(suffix)) {
                return walk->path();
            }
        }
    }
    return std::nullopt;
}

std::string alreadyInstalled(const ManagedRuntimeDescriptor& descriptor,
                             const std::filesystem::path& directory,
                             const std::filesystem::path& executable) {
    return "Quorlin-managed " + descriptor.displayName +
           " runtime already installed\nversion: " + descriptor.version +
           "\npath: " + directory.string() + "\nexecutable: " + executable.string();
}

std::string installed(const ManagedRuntimeDescriptor& descriptor,
                      const std::filesystem::path& directory,
                      const std::filesystem::path& executable) {
    return "Quorlin " + descriptor.displayName +
           " runtime installed\nversion: " + descriptor.version +
           "\nsource: " + descriptor.archiveURL + "\npath: " + directory.string() +
           "\nexecutable: " + executable.string();
}

[[noreturn]] void rethrowDownloadFailure(const HttpError& error) {
    if (error.kind() == HttpError::Kind::cancelled) {
        throw error;
    }
    throw RuntimeInstallError(RuntimeInstallError::Kind::downloadFailed, error.what());
}

} // namespace

RuntimeInstallError::RuntimeInstallError(Kind kind, const std::string& detail)
    : Error(describe(kind, detail)), kind_(kind) {}

std::optional<std::string> checksumFromList(std::string_view list, std::string_view archiveName) {
    std::istringstream lines{std::string(list)};
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string digest;
        std::string name;
        if (!(words >> digest >> name)) {
            continue;
        }
        if (name.starts_with("*")) {
            name.erase(0, 1);
        }
        const auto slash = name.rfind('/');
        if (slash != std::string::npos) {
            name.erase(0, slash + 1);
        }
        if (name == archiveName) {
            return lowercased(digest);
        }
    }
    return std::nullopt;
}

std::optional<std::string> publishedChecksum(HttpTransport& transport, const std::string& listURL,
                                             std::string_view archiveName,
                                             const std::stop_token& stopToken) {
    HttpRequest request;
    request.url = listURL;
    request.responseLimit = checksumListLimit;
    return checksumFromList(sendExpectingSuccess(transport, request, stopToken).body, archiveName);
}

ManagedRuntimeInstaller::ManagedRuntimeInstaller(AppSupportPaths paths,
                                                 std::shared_ptr<HttpDownloading> downloader,
                                                 std::shared_ptr<HttpTransport> transport,
                                                 RuntimeCatalogSources sources)
    : paths_(std::move(paths)), downloader_(std::move(downloader)),
      transport_(std::move(transport)), sources_(std::move(sources)) {}

std::string ManagedRuntimeInstaller::install(ScriptRuntime runtime,
                                             const RuntimeInstallProgressCallback& progress,
                                             const std::stop_token& stopToken) const {
    const auto descriptor = managedRuntimeDescriptor(runtime, currentArchitecture(), sources_);
    const auto target = paths_.managedRuntimeVersionDirectory(runtime, descriptor.version);
    if (auto executable = findInManagedRuntime(paths_, descriptor, descriptor.executableSuffixes)) {
        return alreadyInstalled(descriptor, target, *executable);
    }
    const auto root = paths_.managedRuntimeRootDirectory(runtime);
    createDirectories(root);
    // One install of a runtime at a time, across processes: the app and the command line
    // may both try, and each clears staging folders it takes for a crash's leftovers.
    const auto lock = FileLock::acquireUnlessStopped(root / ".install.lock", stopToken);
    if (!lock) {
        throw HttpError::cancelled(httpHostOf(descriptor.archiveURL));
    }
    if (auto executable = findInManagedRuntime(paths_, descriptor, descriptor.executableSuffixes)) {
        return alreadyInstalled(descriptor, target, *executable); // the other one finished it
    }
    ScratchDirectory::removeLeftovers(root, stagingPrefix);
    const ScratchDirectory staging(root, stagingPrefix);
    const auto report = [&](RuntimeInstallProgress::Stage stage, DownloadProgress download = {}) {
        if (progress) {
            progress({stage, download});
        }
    };

    // The checksum first: a download that can't be checked is not worth making.
    const std::string expected = expectedChecksum(descriptor, stopToken);
    const auto archive = staging.path() / descriptor.archiveName;
    report(RuntimeInstallProgress::Stage::downloading);
    try {
        HttpDownloadRequest request;
        request.url = descriptor.archiveURL;
        request.progress = [&](const DownloadProgress& download) {
            report(RuntimeInstallProgress::Stage::downloading, download);
        };
        downloader_->download(request, archive, stopToken);
    } catch (const HttpError& error) {
        rethrowDownloadFailure(error);
    }

    report(RuntimeInstallProgress::Stage::verifying);
    const std::string actual = Sha256::hexOfFile(archive);
    if (actual != expected) {
        throw RuntimeInstallError(
            RuntimeInstallError::Kind::checksumMismatch,
            descriptor.archiveName + " doesn't match its published checksum (expected " + expected +
                ", got " + actual + "); the download was removed and nothing was installed.");
    }

    report(RuntimeInstallProgress::Stage::unpacking);
    const auto unpacked = staging.path() / "unpacked";
    createDirectories(unpacked);
    try {
        extractTar(archive, unpacked, runtimeArchiveLimits);
    } catch (const ArchiveError& error) {
        throw RuntimeInstallError(RuntimeInstallError::Kind::unpackFailed,
                                  std::string(error.what()) + "; nothing was installed.");
    }
    if (!findExecutable(unpacked, descriptor)) {
        throw RuntimeInstallError(RuntimeInstallError::Kind::noExecutable,
                                  descriptor.archiveName + " holds no " +
                                      descriptor.executableSuffixes.front() +
                                      "; nothing was installed.");
    }
    if (stopToken.stop_requested()) {
        throw HttpError::cancelled(httpHostOf(descriptor.archiveURL));
    }

    // The old folder holds no working build (it was looked for above), so it can go.
    std::error_code error;
    std::filesystem::remove_all(target, error);
    std::filesystem::rename(unpacked, target, error);
    if (error) {
        throw FileError(FileError::Kind::writeFailed, target, error.message());
    }
    const auto executable = findExecutable(target, descriptor).value_or(target);
    return installed(descriptor, target, executable);
}

std::string ManagedRuntimeInstaller::expectedChecksum(const ManagedRuntimeDescriptor& descriptor,
                                                      const std::stop_token& stopToken) const {
    if (descriptor.sha256) {
        return *descriptor.sha256;
    }
    const std::string& listURL = descriptor.checksumListURL.value();
    std::optional<std::string> checksum;
    try {
        checksum = publishedChecksum(*transport_, listURL, descriptor.archiveName, stopToken);
    } catch (const HttpError& error) {
        rethrowDownloadFailure(error);
    }
    if (!checksum) {
        throw RuntimeInstallError(RuntimeInstallError::Kind::checksumMissing,
                                  "The checksum list " + listURL + " has no entry for " +
                                      descriptor.archiveName +
                                      ", so the download can't be checked; nothing was installed.");
    }
    return std::move(*checksum);
}

} // namespace quorlin
