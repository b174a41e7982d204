#include "HttpClient.h"

#include "core/foundation/FileError.h"
#include "core/foundation/HttpError.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string_view>

#include <curl/curl.h>

namespace quorlin {

namespace {

// libcurl and what it brings with it (TLS, HTTP/2, Kerberos, LDAP: some thirty
// libraries) take milliseconds to load, and most runs of the program make no request;
// so the library is opened on the first request rather than at start-up.
struct CurlLibrary {
    CURLcode (*globalInit)(long) = nullptr;
    CURL* (*easyInit)() = nullptr;
    CURLcode (*easySetopt)(CURL*, CURLoption, ...) = nullptr;
    CURLcode (*easyGetinfo)(CURL*, CURLINFO, ...) = nullptr;
    void (*easyCleanup)(CURL*) = nullptr;
    const char* (*easyStrerror)(CURLcode) = nullptr;
    CURLM* (*multiInit)() = nullptr;
    CURLMcode (*multiAddHandle)(CURLM*, CURL*) = nullptr;
    CURLMcode (*multiRemoveHandle)(CURLM*, CURL*) = nullptr;
    CURLMcode (*multiPerform)(CURLM*, int*) = nullptr;
    CURLMcode (*multiPoll)(CURLM*, curl_waitfd*, unsigned int, int, int*) = nullptr;
    CURLMcode (*multiWakeup)(CURLM*) = nullptr;
    CURLMsg* (*multiInfoRead)(CURLM*, int*) = nullptr;
    CURLMcode (*multiCleanup)(CURLM*) = nullptr;
    const char* (*multiStrerror)(CURLMcode) = nullptr;
    curl_slist* (*slistAppend)(curl_slist*, const char*) = nullptr;
    void (*slistFreeAll)(curl_slist*) = nullptr;
};

constexpr const char* curlLibraryName = "libcurl.so.4";

template <typename Function> void bind(void* library, const char* name, Function& target) {
    void* symbol = ::dlsym(library, name);
    if (symbol == nullptr) {
        throw HttpError::transport({}, std::string(curlLibraryName) + " lacks " + name);
    }
    target = reinterpret_cast<Function>(symbol); // NOLINT: how dlsym hands out functions
}

CurlLibrary openCurl() {
    // Kept open for the life of the process, as curl's global state must be.
    void* library = ::dlopen(curlLibraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = ::dlerror();
        throw HttpError::transport({}, std::string("HTTP needs ") + curlLibraryName +
                                           ", which could not be loaded: " +
                                           (reason != nullptr ? reason : "unknown reason"));
    }
    CurlLibrary curl;
    bind(library, "curl_global_init", curl.globalInit);
    bind(library, "curl_easy_init", curl.easyInit);
    bind(library, "curl_easy_setopt", curl.easySetopt);
    bind(library, "curl_easy_getinfo", curl.easyGetinfo);
    bind(library, "curl_easy_cleanup", curl.easyCleanup);
    bind(library, "curl_easy_strerror", curl.easyStrerror);
    bind(library, "curl_multi_init", curl.multiInit);
    bind(library, "curl_multi_add_handle", curl.multiAddHandle);
    bind(library, "curl_multi_remove_handle", curl.multiRemoveHandle);
    bind(library, "curl_multi_perform", curl.multiPerform);
    bind(library, "curl_multi_poll", curl.multiPoll);
    bind(library, "curl_multi_wakeup", curl.multiWakeup);
    bind(library, "curl_multi_info_read", curl.multiInfoRead);
    bind(library, "curl_multi_cleanup", curl.multiCleanup);
    bind(library, "curl_multi_strerror", curl.multiStrerror);
    bind(library, "curl_slist_append", curl.slistAppend);
    bind(library, "curl_slist_free_all", curl.slistFreeAll);
    // curl_global_init is not thread-safe and must run once before any handle exists.
    if (const CURLcode code = curl.globalInit(CURL_GLOBAL_DEFAULT); code != CURLE_OK) {
        throw HttpError::transport({}, std::string("libcurl could not start: ") +
                                           curl.easyStrerror(code));
    }
    return curl;
}

// The library, opened by the first request; after a failure the next request tries again.
const CurlLibrary& curl() {
    static const CurlLibrary library = openCurl();
    return library;
}

struct EasyDeleter {
    void operator()(CURL* easy) const { curl().easyCleanup(easy); }
};
struct MultiDeleter {
    void operator()(CURLM* multi) const { curl().multiCleanup(multi); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl().slistFreeAll(list); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using MultiHandle = std::unique_ptr<CURLM, MultiDeleter>;
using HeaderList = std::unique_ptr<curl_slist, ListDeleter>;

// Keeps an easy handle in a multi handle for one transfer; both must outlive it.
class MultiAttachment {
public:
    MultiAttachment(CURLM* multi, CURL* easy) : multi_(multi), easy_(easy) {}
    ~MultiAttachment() { curl().multiRemoveHandle(multi_, easy_); }
    MultiAttachment(const MultiAttachment&) = delete;
    MultiAttachment& operator=(const MultiAttachment&) = delete;

private:
    CURLM* multi_;
    CURL* easy_;
};

constexpr const char* userAgent = "Quorlin/" QUORLIN_VERSION;
// How long a transfer sleeps at most without looking at its clocks; a stop request wakes
// it sooner.
constexpr int pollMilliseconds = 1000;

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

int responseCode(CURL* easy);

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

template <typename Value>
void setOption(CURL* easy, CURLoption option, Value value, const std::string& host) {
    if (const CURLcode code = curl().easySetopt(easy, option, value); code != CURLE_OK) {
        throw HttpError::transport(host, curl().easyStrerror(code));
    }
}

long milliseconds(std::chrono::milliseconds duration) {
    // curl reads 0 as "no limit"; a limit of nothing is the shortest one instead.
    return static_cast<long>(std::max<std::chrono::milliseconds::rep>(duration.count(), 1));
}

void configure(CURL* easy, const HttpRequest& request, curl_slist* headers, Exchange& exchange,
               char* errorBuffer, const std::string& host) {
    setOption(easy, CURLOPT_URL, request.url.c_str(), host);
    setOption(easy, CURLOPT_PROTOCOLS_STR, "http,https", host);
    setOption(easy, CURLOPT_NOSIGNAL, 1L, host);
    setOption(easy, CURLOPT_USERAGENT, userAgent, host);
    setOption(easy, CURLOPT_ERRORBUFFER, errorBuffer, host);
    setOption(easy, CURLOPT_SSL_VERIFYPEER, 1L, host);
    setOption(easy, CURLOPT_SSL_VERIFYHOST, 2L, host);
    setOption(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds(request.connectTimeout), host);
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

// Drives the transfer until it ends or a stop is requested.
CURLcode perform(CURL* easy, const std::stop_token& stopToken, const std::string& host) {
    MultiHandle multi(curl().multiInit());
    if (!multi) {
        throw HttpError::transport(host, "libcurl could not make a transfer handle");
    }
    if (const CURLMcode code = curl().multiAddHandle(multi.get(), easy); code != CURLM_OK) {
        throw HttpError::transport(host, curl().multiStrerror(code));
    }
    const MultiAttachment attachment(multi.get(), easy);
    const std::stop_callback wake(stopToken,
                                  [target = multi.get()] { curl().multiWakeup(target); });
    for (int running = 1;;) {
        if (stopToken.stop_requested()) {
            throw HttpError::cancelled(host);
        }
        CURLMcode code = curl().multiPerform(multi.get(), &running);
        if (code == CURLM_OK && running != 0) {
            code = curl().multiPoll(multi.get(), nullptr, 0, pollMilliseconds, nullptr);
        }
        if (code != CURLM_OK) {
            throw HttpError::transport(host, curl().multiStrerror(code));
        }
        if (running == 0) {
            break;
        }
    }
    int queued = 0;
    while (const CURLMsg* message = curl().multiInfoRead(multi.get(), &queued)) {
        if (message->msg == CURLMSG_DONE && message->easy_handle == easy) {
            return message->data.result;
        }
    }
    return CURLE_OK;
}

std::string curlDetail(CURLcode code, const char* errorBuffer) {
    std::string detail = curl().easyStrerror(code);
    if (errorBuffer[0] != '\0' && detail != errorBuffer) {
        detail += " (" + std::string(errorBuffer) + ")";
    }
    return detail;
}

bool connected(CURL* easy) {
    curl_off_t connectTime = 0;
    return curl().easyGetinfo(easy, CURLINFO_CONNECT_TIME_T, &connectTime) == CURLE_OK &&
           connectTime > 0;
}

int responseCode(CURL* easy) {
    long status = 0;
    curl().easyGetinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    return static_cast<int>(status);
}

struct FileClose {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

void configureDownload(CURL* easy, const HttpDownloadRequest& request, DownloadExchange& exchange,
                       char* errorBuffer, const std::string& host) {
    setOption(easy, CURLOPT_URL, request.url.c_str(), host);
    setOption(easy, CURLOPT_PROTOCOLS_STR, "http,https", host);
    setOption(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https", host);
    setOption(easy, CURLOPT_FOLLOWLOCATION, 1L, host);
    setOption(easy, CURLOPT_MAXREDIRS, 5L, host);
    setOption(easy, CURLOPT_NOSIGNAL, 1L, host);
    setOption(easy, CURLOPT_USERAGENT, userAgent, host);
    setOption(easy, CURLOPT_ERRORBUFFER, errorBuffer, host);
    setOption(easy, CURLOPT_SSL_VERIFYPEER, 1L, host);
    setOption(easy, CURLOPT_SSL_VERIFYHOST, 2L, host);
    setOption(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds(request.connectTimeout), host);
    setOption(easy, CURLOPT_LOW_SPEED_LIMIT, 1L, host);
    setOption(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.stallTimeout.count()), host);
    setOption(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(request.maxBytes), host);
    setOption(easy, CURLOPT_HTTPGET, 1L, host);
    setOption(easy, CURLOPT_WRITEFUNCTION, &receiveDownload, host);
    setOption(easy, CURLOPT_WRITEDATA, static_cast<void*>(&exchange), host);
}

[[noreturn]] void throwFailure(CURLcode code, CURL* easy, const HttpRequest& request,
                               const Exchange& exchange, const char* errorBuffer,
                               const std::string& host) {
    if (exchange.responseTooLarge || code == CURLE_FILESIZE_EXCEEDED) {
        throw HttpError::tooLarge(host, HttpError::Direction::response, request.responseLimit);
    }
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT: {
        const bool connecting = !connected(easy) && request.connectTimeout < request.timeout;
        throw HttpError::timedOut(host, connecting ? request.connectTimeout : request.timeout,
                                  connecting);
    }
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
        throw HttpError::notReachable(host, errorBuffer[0] != '\0' ? std::string(errorBuffer)
                                                                   : curl().easyStrerror(code));
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_GOT_NOTHING:
        throw HttpError::invalidResponse(host, curlDetail(code, errorBuffer));
    case CURLE_UNSUPPORTED_PROTOCOL:
        // Once connected, this is curl refusing a reply without a status line (HTTP/0.9).
        if (connected(easy)) {
            throw HttpError::invalidResponse(host, curlDetail(code, errorBuffer));
        }
        break;
    default:
        break;
    }
    throw HttpError::transport(host, curlDetail(code, errorBuffer));
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
        throwFailure(code, easy.get(), request, exchange, errorBuffer.data(), host);
    }
    long status = 0;
    curl().easyGetinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status < 100 || status > 999) {
        throw HttpError::invalidResponse(host, "no status line");
    }
    exchange.response.status = static_cast<int>(status);
    return std::move(exchange.response);
}

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
        Exchange failed;
        failed.responseLimit = asRequest.responseLimit;
        failed.responseTooLarge = exchange.tooLarge;
        throwFailure(code, easy.get(), asRequest, failed, errorBuffer.data(), host);
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
