// CurlHttpClient's downloads: a body streamed to a file, with progress.
#include "HttpClient.h"
#include "core/foundation/CurlSupport.h"
#include "core/foundation/FileError.h"
#include "core/foundation/HttpError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace quorlin {

namespace {

using namespace curl_support;

// A download on its way to disk. The body of a reply that is not a success is kept
// (its start) for the error instead of being written.
struct DownloadExchange {
    CURL* easy = nullptr;
    std::FILE* file = nullptr;
    const HttpDownloadRequest* request = nullptr;
    std::uint64_t received = 0;
    std::string errorBody;
    bool tooLarge = false;
    int writeErrno = 0;
};

constexpr std::size_t keptErrorBodyBytes = 64 * 1024;

std::size_t receiveDownload(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<DownloadExchange*>(context);
    const std::size_t length = size * count;
    const int status = responseCode(exchange.easy);
    if (status < 200 || status > 299) {
        exchange.errorBody.append(
            data, std::min(length, keptErrorBodyBytes -
                                       std::min(keptErrorBodyBytes, exchange.errorBody.size())));
        return length;
    }
    if (length > exchange.request->maxBytes - exchange.received) {
        exchange.tooLarge = true;
        return 0;
    }
    if (std::fwrite(data, 1, length, exchange.file) != length) {
        exchange.writeErrno = errno;
        return 0;
    }
    exchange.received += length;
    if (exchange.request->progress) {
        curl_off_t total = -1;
        curl().easyGetinfo(exchange.easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &total);
        try {
            exchange.request->progress(
                {exchange.received,
                 total >= 0 ? std::optional(static_cast<std::uint64_t>(total)) : std::nullopt});
        } catch (...) {
            return 0; // an exception must not cross curl's C frames; the transfer ends
        }
    }
    return length;
}

struct FileClose {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

void configureDownload(CURL* easy, const HttpDownloadRequest& request, DownloadExchange& exchange,
                       char* errorBuffer, const std::string& host) {
    configureTransfer(easy, request.url, request.connectTimeout, errorBuffer, host);
    setOption(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https", host);
    setOption(easy, CURLOPT_FOLLOWLOCATION, 1L, host);
    setOption(easy, CURLOPT_MAXREDIRS, 5L, host);
    setOption(easy, CURLOPT_LOW_SPEED_LIMIT, 1L, host);
    setOption(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.stallTimeout.count()), host);
    setOption(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request.maxBytes), host);
    setOption(easy, CURLOPT_HTTPGET, 1L, host);
    setOption(easy, CURLOPT_WRITEFUNCTION, &receiveDownload, host);
    setOption(easy, CURLOPT_WRITEDATA, static_cast<void*>(&exchange), host);
}

} // namespace

void CurlHttpClient::download(const HttpDownloadRequest& request, const std::filesystem::path& file,
                              const std::stop_token& stopToken) {
    const std::string host = httpHostOf(request.url);
    if (stopToken.stop_requested()) {
        throw HttpError::cancelled(host);
    }
    const EasyHandle easy(curl().easyInit());
    if (!easy) {
        throw HttpError::transport(host, "libcurl could not make a request handle");
    }
    const std::unique_ptr<std::FILE, FileClose> output(std::fopen(file.c_str(), "wb"));
    if (!output) {
        throw FileError(FileError::Kind::writeFailed, file, std::strerror(errno));
    }
    DownloadExchange exchange;
    exchange.easy = easy.get();
    exchange.file = output.get();
    exchange.request = &request;
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    configureDownload(easy.get(), request, exchange, errorBuffer.data(), host);

    const CURLcode code = perform(easy.get(), stopToken, host);
    if (exchange.writeErrno != 0) {
        throw FileError(FileError::Kind::writeFailed, file, std::strerror(exchange.writeErrno));
    }
    if (code != CURLE_OK) {
        // The failure in a request's terms: its whole-exchange limit is the stall limit.
        HttpRequest asRequest;
        asRequest.url = request.url;
        asRequest.timeout = request.stallTimeout;
        asRequest.connectTimeout = request.connectTimeout;
        asRequest.responseLimit = static_cast<std::size_t>(request.maxBytes);
        throwFailure(code, easy.get(), asRequest, exchange.tooLarge, errorBuffer.data(), host);
    }
    const int status = responseCode(easy.get());
    if (status < 100 || status > 999) {
        throw HttpError::invalidResponse(host, "no status line");
    }
    if (status < 200 || status > 299) {
        throw HttpError::status(host, status, std::move(exchange.errorBody));
    }
    if (std::fflush(output.get()) != 0) {
        throw FileError(FileError::Kind::writeFailed, file, std::strerror(errno));
    }
}

} // namespace quorlin
