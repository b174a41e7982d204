#pragma once

#include "core/foundation/HttpClient.h"

#include <mutex>
#include <vector>

namespace quorlin::testing {

// Real HTTP through curl that also keeps each request as the client built it, so a test
// can read what never travels on the wire, such as the time-out.
class RecordingHttpTransport final : public HttpTransport {
public:
    HttpResponse send(const HttpRequest& request, const std::stop_token& stopToken) override {
        {
            const std::lock_guard lock(mutex_);
            sent_.push_back(request);
        }
        return curl_.send(request, stopToken);
    }

    std::vector<HttpRequest> sent() const {
        const std::lock_guard lock(mutex_);
        return sent_;
    }

private:
    CurlHttpClient curl_;
    mutable std::mutex mutex_;
    std::vector<HttpRequest> sent_;
};

} // namespace quorlin::testing
