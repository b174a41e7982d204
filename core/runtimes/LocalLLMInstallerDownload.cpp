// The download half of LocalLLMInstaller: fetching, checking and unpacking Ollama.

#include "core/foundation/Archive.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/HttpError.h"
#include "core/foundation/ScratchDirectory.h"
#include "core/foundation/ServiceAddress.h"
#include "core/foundation/Sha256.h"
#include "core/runtimes/LocalLLMInstaller.h"
#include "core/runtimes/LocalLLMInstallerError.h"
#include "core/runtimes/ManagedRuntimeCatalog.h"
#include "core/runtimes/ManagedRuntimeInstaller.h"

#include <system_error>

namespace quorlin {

namespace {

constexpr const char* downloadURLVariable = "QUORLIN_OLLAMA_DOWNLOAD_URL";
constexpr std::string_view releaseFolder =
    "https://github.com/ollama/ollama/releases/latest/download/";
constexpr std::string_view stagingPrefix = ".tmp-ollama-";
// The Linux archive carries the GPU libraries: some 2 GB packed, several unpacked.
constexpr std::uint64_t archiveByteLimit = std::uint64_t{8} << 30U;
constexpr ArchiveLimits ollamaArchiveLimits{100'000, std::uint64_t{32} << 30U};

[[noreturn]] void rethrowDownloadFailure(const HttpError& error) {
    if (error.kind() == HttpError::Kind::cancelled) {
        throw error;
    }
    throw LocalLLMInstallerError::downloadFailed(std::string("Failed to download Ollama: ") +
                                                 error.what());
}

bool isRegularFile(const std::filesystem::path& file) {
    std::error_code error;
    return std::filesystem::is_regular_file(file, error);
}

} // namespace

OllamaDownloadSource OllamaDownloadSource::fromEnvironment() {
    const char* architecture =
        currentArchitecture() == ManagedRuntimeArchitecture::arm64 ? "arm64" : "amd64";
    return {baseURLFromEnvironment(
        downloadURLVariable, std::string(releaseFolder) + "ollama-linux-" + architecture + ".tgz")};
}

std::string OllamaDownloadSource::archiveName() const {
    const std::string path = archiveURL.substr(0, archiveURL.find_first_of("?#"));
    return path.substr(path.rfind('/') + 1);
}

std::string OllamaDownloadSource::checksumListURL() const {
    const std::string path = archiveURL.substr(0, archiveURL.find_first_of("?#"));
    return path.substr(0, path.rfind('/') + 1) + "sha256sum.txt";
}

std::string LocalLLMInstaller::installOllama(const LocalLLMProgressCallback& progress,
                                             const std::stop_token& stopToken) const {
    if (const auto cli = ollamaCLIPath()) {
        return "Ollama already installed: " + cli->string();
    }
    const auto root = paths_.managedRuntimesDirectory();
    // One install at a time, across processes: each clears staging it takes for a crash's.
    const auto lock = waitForLock(root / ".ollama-install.lock", source_.archiveURL, stopToken);
    if (const auto cli = ollamaCLIPath()) {
        return "Ollama already installed: " + cli->string(); // the other one finished it
    }
    ScratchDirectory::removeLeftovers(root, stagingPrefix);
    const ScratchDirectory staging(root, stagingPrefix);

    // The checksum first: a download that can't be checked is not worth making.
    const std::string expected = expectedChecksum(stopToken);
    const auto archive = staging.path() / "ollama.archive";
    reportProgress(progress, {LocalLLMProgress::Stage::downloading, {}, {}});
    try {
        HttpDownloadRequest request;
        request.url = source_.archiveURL;
        request.maxBytes = archiveByteLimit;
        request.progress = [&progress](const DownloadProgress& transfer) {
            reportProgress(progress, {LocalLLMProgress::Stage::downloading, {}, transfer});
        };
        downloader_->download(request, archive, stopToken);
    } catch (const HttpError& error) {
        rethrowDownloadFailure(error);
    }
    return placeArchive(archive, expected, progress, stopToken);
}

std::string LocalLLMInstaller::placeArchive(const std::filesystem::path& archive,
                                            const std::string& expectedDigest,
                                            const LocalLLMProgressCallback& progress,
                                            const std::stop_token& stopToken) const {
    reportProgress(progress, {LocalLLMProgress::Stage::verifying, {}, {}});
    const std::string actual = Sha256::hexOfFile(archive);
    if (actual != expectedDigest) {
        throw LocalLLMInstallerError::downloadFailed(
            source_.archiveName() + " doesn't match its published checksum (expected " +
            expectedDigest + ", got " + actual +
            "); the download was removed and nothing was installed.");
    }

    reportProgress(progress, {LocalLLMProgress::Stage::unpacking, {}, {}});
    const auto unpacked = archive.parent_path() / "unpacked";
    createDirectories(unpacked);
    try {
        extractTar(archive, unpacked, ollamaArchiveLimits);
    } catch (const ArchiveError& error) {
        throw LocalLLMInstallerError::processFailed(std::string(error.what()) +
                                                    "; nothing was installed.");
    }
    if (!isRegularFile(unpacked / "bin" / "ollama")) {
        throw LocalLLMInstallerError::processFailed(
            "Couldn't find bin/ollama inside the downloaded archive.");
    }
    if (stopToken.stop_requested()) {
        throw HttpError::cancelled(httpHostOf(source_.archiveURL));
    }

    // Whatever lies at the target holds no working ollama (it was looked for), so it goes.
    const auto target = managedCLIPath().parent_path().parent_path();
    std::error_code error;
    std::filesystem::remove_all(target, error);
    std::filesystem::rename(unpacked, target, error);
    if (error) {
        throw FileError(FileError::Kind::writeFailed, target, error.message());
    }
    return "Ollama downloaded\nsource: " + source_.archiveURL + "\npath: " + target.string() +
           "\ncli: " + managedCLIPath().string();
}

std::string LocalLLMInstaller::expectedChecksum(const std::stop_token& stopToken) const {
    const std::string listURL = source_.checksumListURL();
    std::optional<std::string> checksum;
    try {
        checksum = publishedChecksum(*transport_, listURL, source_.archiveName(), stopToken);
    } catch (const HttpError& error) {
        rethrowDownloadFailure(error);
    }
    if (!checksum) {
        throw LocalLLMInstallerError::downloadFailed(
            "The checksum list " + listURL + " has no entry for " + source_.archiveName() +
            ", so the download can't be checked; nothing was installed.");
    }
    return std::move(*checksum);
}

} // namespace quorlin
