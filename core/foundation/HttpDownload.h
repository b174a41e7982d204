#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>

namespace quorlin {

struct DownloadProgress {
    std::uint64_t receivedBytes = 0;
    std::optional<std::uint64_t> totalBytes; // when the server said
};

struct HttpDownloadRequest {
    std::string url;
    // A body larger than this fails with HttpError(tooLarge); what came is not kept.
    std::uint64_t maxBytes = std::uint64_t{1} << 31U;
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(15);
    // A large file may take long; a transfer fails only when nothing arrives this long.
    std::chrono::seconds stallTimeout = std::chrono::seconds(60);
    // Called on the downloading thread as bytes arrive; may be empty.
    std::function<void(const DownloadProgress&)> progress;
};

// Fetches a large file, such as an archive, straight to disk.
class HttpDownloading {
public:
    virtual ~HttpDownloading() = default;

    // GETs the URL into file (created or replaced), following up to five redirects over
    // http and https, since download hosts hand out their files from elsewhere. A status
    // outside 200 to 299 throws HttpError with the start of the body; a body cut off short
    // of the length the server announced, a stall, a stop request and every other failure
    // of the exchange throw HttpError as a request would; a file that can't be written
    // throws FileError. After a failure the file's content is unspecified.
    virtual void download(const HttpDownloadRequest& request, const std::filesystem::path& file,
                          const std::stop_token& stopToken) = 0;

protected:
    HttpDownloading() = default;
    HttpDownloading(const HttpDownloading&) = default;
    HttpDownloading& operator=(const HttpDownloading&) = default;
};

} // namespace quorlin
