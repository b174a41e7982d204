#include "HttpError.h"

#include "core/foundation/Text.h"

#include <locale>
#include <sstream>
#include <utility>

namespace quorlin {

namespace {

constexpr std::size_t excerptCodePoints = 160;

// A body fit for one line of an error message: white space runs become one space,
// control characters and broken UTF-8 are escaped, and a long body is cut short.
std::string bodyExcerpt(std::string_view body) {
    std::string line;
    std::size_t count = 0;
    bool pendingSpace = false;
    for (std::size_t offset = 0; offset < body.size();) {
        const std::size_t start = offset;
        const char32_t character = decodeCodePoint(body, offset);
        if (isWhitespaceOrNewline(character)) {
            pendingSpace = !line.empty();
            continue;
        }
        if (count == excerptCodePoints) {
            line += "…";
            break;
        }
        if (pendingSpace) {
            line += ' ';
            ++count;
            pendingSpace = false;
        }
        line += body.substr(start, offset - start);
        ++count;
    }
    return escapedControlBytes(line);
}

std::string secondsText(std::chrono::milliseconds duration) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << std::chrono::duration<double>(duration).count();
    return text.str();
}

std::string withDetail(const std::string& text, const std::string& detail) {
    return detail.empty() ? text + "." : text + ": " + detail;
}

} // namespace

HttpError::HttpError(Kind kind, Fields fields)
    : Error(compose(kind, fields)), kind_(kind), fields_(std::move(fields)) {}

std::string HttpError::compose(Kind kind, const Fields& fields) {
    const std::string& host = fields.host.empty() ? std::string("the server") : fields.host;
    switch (kind) {
    case Kind::invalidResponse:
        return withDetail("The reply from " + host + " is not HTTP", fields.detail);
    case Kind::apiError:
        return withDetail(host + " answered with status " + std::to_string(fields.status),
                          bodyExcerpt(fields.body));
    case Kind::unauthorized:
        return withDetail(host + " refused the credentials (status 401)", bodyExcerpt(fields.body));
    case Kind::transport:
        return withDetail("The request to " + host + " failed", fields.detail);
    case Kind::notReachable:
        return withDetail("Could not reach " + host, fields.detail);
    case Kind::timedOut:
        return fields.connecting
                   ? "Could not connect to " + host + " within " + secondsText(fields.timeLimit) +
                         "s."
                   : host + " did not answer within " + secondsText(fields.timeLimit) + "s.";
    case Kind::cancelled:
        return "The request to " + host + " was cancelled.";
    case Kind::tooLarge:
        return fields.direction == Direction::request
                   ? "The request to " + host + " is larger than " +
                         byteSizeText(fields.sizeLimit) + "; it was not sent."
                   : "The reply from " + host + " is larger than " +
                         byteSizeText(fields.sizeLimit) + ".";
    }
    return withDetail("The request to " + host + " failed", fields.detail);
}

HttpError HttpError::invalidResponse(const std::string& host, const std::string& detail) {
    return {Kind::invalidResponse, {.host = host, .detail = detail}};
}

HttpError HttpError::status(const std::string& host, int status, std::string body) {
    return {status == 401 ? Kind::unauthorized : Kind::apiError,
            {.host = host, .status = status, .body = std::move(body)}};
}

HttpError HttpError::transport(const std::string& host, const std::string& detail) {
    return {Kind::transport, {.host = host, .detail = detail}};
}

HttpError HttpError::notReachable(const std::string& host, const std::string& detail) {
    return {Kind::notReachable, {.host = host, .detail = detail}};
}

HttpError HttpError::timedOut(const std::string& host, std::chrono::milliseconds limit,
                              bool connecting) {
    return {Kind::timedOut, {.host = host, .timeLimit = limit, .connecting = connecting}};
}

HttpError HttpError::cancelled(const std::string& host) {
    return {Kind::cancelled, {.host = host}};
}

HttpError HttpError::tooLarge(const std::string& host, Direction direction, std::size_t limit) {
    return {Kind::tooLarge, {.host = host, .direction = direction, .sizeLimit = limit}};
}

} // namespace quorlin
