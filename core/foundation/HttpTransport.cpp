#include "HttpTransport.h"

#include "core/foundation/HttpError.h"

#include <algorithm>

namespace quorlin {

namespace {

bool equalIgnoringAsciiCase(std::string_view left, std::string_view right) {
    const auto lower = [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return std::ranges::equal(left, right, {}, lower, lower);
}

} // namespace

std::optional<std::string> findHeader(const HttpHeaders& headers, std::string_view name) {
    for (const auto& [fieldName, value] : headers) {
        if (equalIgnoringAsciiCase(fieldName, name)) {
            return value;
        }
    }
    return std::nullopt;
}

HttpResponse sendExpectingSuccess(HttpTransport& transport, const HttpRequest& request,
                                  const std::stop_token& stopToken) {
    HttpResponse response = transport.send(request, stopToken);
    if (!response.successful()) {
        throw HttpError::status(httpHostOf(request.url), response.status, std::move(response.body));
    }
    return response;
}

std::string httpHostOf(std::string_view url) {
    if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
        url.remove_prefix(scheme + 3);
    }
    url = url.substr(0, url.find_first_of("/?#"));
    if (const auto at = url.rfind('@'); at != std::string_view::npos) {
        url.remove_prefix(at + 1);
    }
    return std::string(url);
}

} // namespace quorlin
