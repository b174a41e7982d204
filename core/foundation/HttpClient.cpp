#include "HttpClient.h"

#include "core/foundation/CurlSupport.h"
#include "core/foundation/HttpError.h"

#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace quorlin {

namespace {

using namespace curl_support;

struct Exchange {
    HttpResponse response{};
    std::size_t responseLimit = 0;
    bool responseTooLarge = false;
    // A request's onBodyData, and how it ended the transfer when it did.
    CURL* easy = nullptr;
    const std::function<bool(std::string_view)>* onBodyData = nullptr;
    bool stoppedByReader = false;
    std::exception_ptr readerError{};
};

// A successful reply's piece handed to the request's reader; 0 ends the transfer.
std::size_t streamBody(Exchange& exchange, const char* data, std::size_t length) {
    try {
        if (!(*exchange.onBodyData)(std::string_view(data, length))) {
            exchange.stoppedByReader = true;
            return 0;
        }
    } catch (...) {
        exchange.readerError = std::current_exception(); // rethrown once curl is out of the way
        return 0;
    }
    return length;
}

std::size_t receiveBody(char* data, std::size_t size, std::size_t count, void* context) {
    auto& exchange = *static_cast<Exchange*>(context);
    const std::size_t length = size * count;
    if (exchange.onBodyData != nullptr) {
        const int status = responseCode(exchange.easy);
        if (status >= 200 && status <= 299) {
            return streamBody(exchange, data, length);
        }
    }
    if (length > exchange.responseLimit - exchange.response.body.size()) {
        exchange.responseTooLarge = true;
        return 0; // anything short of length makes curl stop with CURLE_WRITE_ERROR
    }
    try {
        exchange.response.body.append(data, length);
    } catch (const std::bad_alloc&) {
        return 0; // curl reports a write error; an exception must not cross its C frames
    }
    return length;
}

std::string_view trimmedBlanks(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::size_t receiveHeader(char* data, std::size_t size, std::size_t count, void* context) {
    auto& headers = static_cast<Exchange*>(context)->response.headers;
    const std::string_view line(data, size * count);
    try {
        if (line.starts_with("HTTP/")) {
            // A new status line: the headers of an interim reply (100 Continue) are over.
            headers.clear();
        } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
            headers.emplace_back(std::string(trimmedBlanks(line.substr(0, colon))),
                                 std::string(trimmedBlanks(line.substr(colon + 1))));
        }
    } catch (const std::bad_alloc&) {
        return 0;
    }
    return line.size();
}

bool isMethodToken(std::string_view method) {
    return !method.empty() &&
           std::ranges::all_of(method, [](char c) { return c >= 'A' && c <= 'Z'; });
}

bool holdsLineBreak(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

HeaderList headerList(const HttpRequest& request) {
    HeaderList list;
    const auto append = [&list](const std::string& line) {
        curl_slist* extended = curl().slistAppend(list.get(), line.c_str());
        if (extended == nullptr) {
            throw std::bad_alloc();
        }
        static_cast<void>(list.release());
        list.reset(extended);
    };
    for (const auto& [name, value] : request.headers) {
        if (name.empty() || holdsLineBreak(name) || name.find(':') != std::string::npos ||
            holdsLineBreak(value)) {
            // The value stays out of the message: it may be a key.
            throw std::invalid_argument("HTTP header \"" + std::string(trimmedBlanks(name)) +
                                        "\" is not a valid header field");
        }
        // "Name;" is curl's spelling of a header sent with an empty value.
        append(value.empty() ? name + ";" : name + ": " + value);
    }
    if (!request.body.empty() && !findHeader(request.headers, "Content-Type")) {
        append("Content-Type:"); // curl would claim a form otherwise
    }
    // The whole body goes out at once; waiting for 100 Continue only costs a round trip.
    append("Expect:");
    return list;
}

void configure(CURL* easy, const HttpRequest& request, curl_slist* headers, Exchange& exchange,
               char* errorBuffer, const std::string& host) {
    configureTransfer(easy, request.url, request.connectTimeout, errorBuffer, host);
    if (request.onBodyData) {
        // A streamed reply lasts as long as the work behind it; only a stall ends it.
        const auto seconds = std::chrono::ceil<std::chrono::seconds>(request.timeout).count();
        setOption(easy, CURLOPT_LOW_SPEED_LIMIT, 1L, host);
        setOption(easy, CURLOPT_LOW_SPEED_TIME,
                  static_cast<long>(std::max<decltype(seconds)>(seconds, 1)), host);
    } else {
        setOption(easy, CURLOPT_TIMEOUT_MS, milliseconds(request.timeout), host);
        setOption(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request.responseLimit),
                  host);
    }
    setOption(easy, CURLOPT_HTTPHEADER, headers, host);
    setOption(easy, CURLOPT_WRITEFUNCTION, &receiveBody, host);
    setOption(easy, CURLOPT_WRITEDATA, static_cast<void*>(&exchange), host);
    setOption(easy, CURLOPT_HEADERFUNCTION, &receiveHeader, host);
    setOption(easy, CURLOPT_HEADERDATA, static_cast<void*>(&exchange), host);

    const std::string& method = request.method;
    if (method == "HEAD") {
        setOption(easy, CURLOPT_NOBODY, 1L, host);
    } else if (!request.body.empty() || method == "POST" || method == "PUT" || method == "PATCH") {
        setOption(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()),
                  host);
        setOption(easy, CURLOPT_POSTFIELDS, request.body.data(), host);
    } else {
        setOption(easy, CURLOPT_HTTPGET, 1L, host);
    }
    if (method != "GET" && method != "POST" && method != "HEAD") {
        setOption(easy, CURLOPT_CUSTOMREQUEST, method.c_str(), host);
    }
}

} // namespace

HttpResponse CurlHttpClient::send(const HttpRequest& request, const std::stop_token& stopToken) {
    if (!isMethodToken(request.method)) {
        throw std::invalid_argument("HTTP method \"" + request.method + "\" is not a token");
    }
    const std::string host = httpHostOf(request.url);
    if (request.body.size() > requestLimit_) {
        throw HttpError::tooLarge(host, HttpError::Direction::request, requestLimit_);
    }
    if (stopToken.stop_requested()) {
        throw HttpError::cancelled(host);
    }
    const HeaderList headers = headerList(request);
    const EasyHandle easy(curl().easyInit());
    if (!easy) {
        throw HttpError::transport(host, "libcurl could not make a request handle");
    }
    Exchange exchange{.responseLimit = request.responseLimit,
                      .easy = easy.get(),
                      .onBodyData = request.onBodyData ? &request.onBodyData : nullptr};
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    configure(easy.get(), request, headers.get(), exchange, errorBuffer.data(), host);

    const CURLcode code = perform(easy.get(), stopToken, host);
    if (exchange.readerError) {
        std::rethrow_exception(exchange.readerError);
    }
    if (exchange.stoppedByReader) {
        throw HttpError::cancelled(host);
    }
    if (code != CURLE_OK) {
        throwFailure(code, easy.get(), request, exchange.responseTooLarge, errorBuffer.data(),
                     host);
    }
    long status = 0;
    curl().easyGetinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status < 100 || status > 999) {
        throw HttpError::invalidResponse(host, "no status line");
    }
    exchange.response.status = static_cast<int>(status);
    return std::move(exchange.response);
}

} // namespace quorlin
