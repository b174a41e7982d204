#include "core/foundation/CurlSupport.h"

#include "core/foundation/HttpError.h"

#include <algorithm>
#include <dlfcn.h>

namespace quorlin::curl_support {

namespace {

// How long a transfer sleeps at most without looking at its clocks; a stop request wakes
// it sooner.
constexpr int pollMilliseconds = 1000;

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

} // namespace

// The library, opened by the first request; after a failure the next request tries again.
const CurlLibrary& curl() {
    static const CurlLibrary library = openCurl();
    return library;
}

long milliseconds(std::chrono::milliseconds duration) {
    // curl reads 0 as "no limit"; a limit of nothing is the shortest one instead.
    return static_cast<long>(std::max<std::chrono::milliseconds::rep>(duration.count(), 1));
}

void configureTransfer(CURL* easy, const std::string& url, std::chrono::milliseconds connectTimeout,
                       char* errorBuffer, const std::string& host) {
    setOption(easy, CURLOPT_URL, url.c_str(), host);
    setOption(easy, CURLOPT_PROTOCOLS_STR, "http,https", host);
    setOption(easy, CURLOPT_NOSIGNAL, 1L, host);
    setOption(easy, CURLOPT_USERAGENT, userAgent, host);
    setOption(easy, CURLOPT_ERRORBUFFER, errorBuffer, host);
    setOption(easy, CURLOPT_SSL_VERIFYPEER, 1L, host);
    setOption(easy, CURLOPT_SSL_VERIFYHOST, 2L, host);
    setOption(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds(connectTimeout), host);
}

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

void throwFailure(CURLcode code, CURL* easy, const HttpRequest& request, bool responseTooLarge,
                  const char* errorBuffer, const std::string& host) {
    if (responseTooLarge || code == CURLE_FILESIZE_EXCEEDED) {
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

} // namespace quorlin::curl_support
