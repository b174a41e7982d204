#pragma once

#include "core/foundation/Error.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace quorlin {

// The one error of HTTP exchanges. Texts name the server's host and never a header
// value or the URL's query, where keys travel.
class HttpError : public Error {
public:
    enum class Kind {
        invalidResponse, // the reply is not HTTP
        apiError,        // a status outside 200 to 299 other than 401
        unauthorized,    // status 401: the credentials were refused
        transport,       // any other failure of the exchange, in libcurl's words
        notReachable,    // no connection: name not resolved, refused, unreachable
        timedOut,
        cancelled,
        tooLarge, // a request or reply body past its bound
    };
    enum class Direction { request, response };

    static HttpError invalidResponse(const std::string& host, const std::string& detail);
    // unauthorized for 401, apiError for the rest.
    static HttpError status(const std::string& host, int status, std::string body);
    static HttpError transport(const std::string& host, const std::string& detail);
    static HttpError notReachable(const std::string& host, const std::string& detail);
    // connecting: the connect time-out ran out, not the whole request's.
    static HttpError timedOut(const std::string& host, std::chrono::milliseconds limit,
                              bool connecting);
    static HttpError cancelled(const std::string& host);
    static HttpError tooLarge(const std::string& host, Direction direction, std::size_t limit);

    Kind kind() const { return kind_; }
    const std::string& host() const { return fields_.host; }
    // For apiError and unauthorized: the status and the whole body as received.
    int statusCode() const { return fields_.status; }
    const std::string& body() const { return fields_.body; }
    // For timedOut.
    std::chrono::milliseconds timeLimit() const { return fields_.timeLimit; }
    // For tooLarge.
    Direction direction() const { return fields_.direction; }
    std::size_t sizeLimit() const { return fields_.sizeLimit; }

private:
    struct Fields {
        std::string host{};
        std::string detail{};
        int status = 0;
        std::string body{};
        std::chrono::milliseconds timeLimit{0};
        bool connecting = false;
        Direction direction = Direction::response;
        std::size_t sizeLimit = 0;
    };

    HttpError(Kind kind, Fields fields);
    static std::string compose(Kind kind, const Fields& fields);

    Kind kind_;
    Fields fields_;
};

} // namespace quorlin
