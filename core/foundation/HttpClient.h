#pragma once

#include "core/foundation/HttpDownload.h"
#include "core/foundation/HttpTransport.h"

#include <cstddef>

namespace quorlin {

inline constexpr std::size_t defaultHttpRequestLimit = std::size_t{32} << 20U;

// HTTP and HTTPS over libcurl, one fresh connection per request, so it keeps no state
// between calls and any thread may use it at any time.
//
// TLS peers are always verified against the system's certificates. Proxies come from the
// environment (http_proxy, https_proxy, no_proxy) as curl reads them. Redirects are not
// followed: a 3xx reply is handed back as it is, so headers that carry keys never reach
// another host. Every request says "User-Agent: Quorlin/<version>".
//
// libcurl (libcurl.so.4) is loaded on the first request, so a process that makes none
// doesn't pay for it; without it every request fails with HttpError(transport) saying so.
//
// A stop request wakes the transfer at once and throws HttpError(cancelled); a request
// whose token is already stopped is not sent. A body larger than requestLimit is refused
// with HttpError(tooLarge) before any connection is made.
class CurlHttpClient final : public HttpTransport, public HttpDownloading {
public:
    explicit CurlHttpClient(std::size_t requestLimit = defaultHttpRequestLimit)
        : requestLimit_(requestLimit) {}

    // Throws std::invalid_argument for a method that is not an upper-case token or a
    // header holding a line break: those are faults of the caller, not of the exchange.
    HttpResponse send(const HttpRequest& request, const std::stop_token& stopToken) override;

    void download(const HttpDownloadRequest& request, const std::filesystem::path& file,
                  const std::stop_token& stopToken) override;

private:
    std::size_t requestLimit_;
};

} // namespace quorlin
