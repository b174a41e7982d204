#pragma once

// The libcurl plumbing shared by CurlHttpClient's requests and downloads. libcurl is
// opened on first use; only foundation's HTTP code includes this.

#include "core/foundation/HttpError.h"
#include "core/foundation/HttpTransport.h"

#include <chrono>
#include <memory>
#include <stop_token>
#include <string>

#include <curl/curl.h>

namespace quorlin::curl_support {

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

// The library, opened by the first call; after a failure the next call tries again.
// Throws HttpError(transport) when libcurl can't be loaded.
const CurlLibrary& curl();

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

inline constexpr const char* userAgent = "Quorlin/" QUORLIN_VERSION;

template <typename Value>
void setOption(CURL* easy, CURLoption option, Value value, const std::string& host) {
    if (const CURLcode code = curl().easySetopt(easy, option, value); code != CURLE_OK) {
        throw HttpError::transport(host, curl().easyStrerror(code));
    }
}

// curl reads 0 as "no limit"; a limit of nothing is the shortest one instead.
long milliseconds(std::chrono::milliseconds duration);

// What every transfer sets alike: the address, http and https only, no signals, our
// user agent, the error buffer, TLS peers verified, and the connect time-out.
void configureTransfer(CURL* easy, const std::string& url, std::chrono::milliseconds connectTimeout,
                       char* errorBuffer, const std::string& host);

// Drives the transfer until it ends or a stop is requested.
CURLcode perform(CURL* easy, const std::stop_token& stopToken, const std::string& host);

// curl's words for the code, with the error buffer's detail where it adds some.
std::string curlDetail(CURLcode code, const char* errorBuffer);
bool connected(CURL* easy);
int responseCode(CURL* easy);

// The failure of a transfer as the HttpError a request reports: request gives the limits
// the words name.
[[noreturn]] void throwFailure(CURLcode code, CURL* easy, const HttpRequest& request,
                               bool responseTooLarge, const char* errorBuffer,
                               const std::string& host);

} // namespace quorlin::curl_support
