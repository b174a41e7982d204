#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorlin {

inline constexpr std::size_t defaultHttpResponseLimit = std::size_t{32} << 20U;

// Header fields in the order they were given or received. Names compare without regard
// to case, as HTTP wants; a name may appear more than once.
using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

// The value of the first header of that name.
std::optional<std::string> findHeader(const HttpHeaders& headers, std::string_view name);

struct HttpRequest {
    // An upper-case token: "GET", "POST", "PUT", "PATCH", "DELETE", "HEAD".
    std::string method = "GET";
    std::string url;
    HttpHeaders headers;
    std::string body;
    // The whole exchange, connecting included.
    std::chrono::milliseconds timeout = std::chrono::seconds(60);
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(10);
    // A reply body larger than this fails with HttpError(tooLarge) and is not kept.
    std::size_t responseLimit = defaultHttpResponseLimit;
    // For a reply that streams (a line per event, for as long as the work lasts): when set,
    // the body of a reply with a status of 200 to 299 is handed here piece by piece as it
    // arrives, on the calling thread, and not kept, so responseLimit does not bound it; and
    // timeout bounds how long the reply may go without a byte rather than the whole
    // exchange. Returning false ends the transfer with HttpError(cancelled); an exception
    // thrown here ends it and comes out of send. Other replies' bodies are kept as usual.
    std::function<bool(std::string_view)> onBodyData{};
};

struct HttpResponse {
    int status = 0;
    HttpHeaders headers;
    std::string body;

    std::optional<std::string> header(std::string_view name) const {
        return findHeader(headers, name);
    }
    bool successful() const { return status >= 200 && status <= 299; }
};

// Sends one request and gives the reply, whatever its status. Failures of the exchange
// itself (no connection, a reply that is not HTTP, a time-out, a stop request, a body
// past its bound) throw HttpError. Implementations are safe to call from many threads.
class HttpTransport {
public:
    virtual ~HttpTransport() = default;
    virtual HttpResponse send(const HttpRequest& request, const std::stop_token& stopToken) = 0;

protected:
    HttpTransport() = default;
    HttpTransport(const HttpTransport&) = default;
    HttpTransport& operator=(const HttpTransport&) = default;
};

// As transport.send, but a status outside 200 to 299 throws HttpError: unauthorized for
// 401, apiError for the rest, either with the status and body.
HttpResponse sendExpectingSuccess(HttpTransport& transport, const HttpRequest& request,
                                  const std::stop_token& stopToken = {});

// "host" or "host:port" of an http(s) URL, without any user name or password; what error
// texts name, since a full URL may carry a key in its query.
std::string httpHostOf(std::string_view url);

} // namespace quorlin
