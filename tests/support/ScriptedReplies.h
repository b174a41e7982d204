#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <httplib.h>

namespace quorlin::testing {

// One request as a fake server received it.
struct RecordedRequest {
    std::string method;
    std::string path;
    httplib::Headers headers;
    std::string body;

    // The first value of a header, or empty.
    std::string header(const std::string& name) const;
};

// A reply a test puts in line ahead of a fake server's own answer.
struct ScriptedReply {
    ScriptedReply(int replyStatus, std::string replyBody,
                  std::chrono::milliseconds replyDelay = std::chrono::milliseconds(0),
                  std::string replyContentType = "application/json")
        : status(replyStatus), body(std::move(replyBody)), contentType(std::move(replyContentType)),
          delay(replyDelay) {}

    int status;
    std::string body;
    std::string contentType;
    // Held back this long, or until the server closes.
    std::chrono::milliseconds delay;
};

// What the fake servers share: the requests they received, the replies queued for them,
// and the waits of slow replies, which end early when the server closes so a test never
// waits for its own fake.
class ScriptedReplies {
public:
    void record(const httplib::Request& request);
    std::vector<RecordedRequest> requests() const;

    void push(ScriptedReply reply);
    std::optional<ScriptedReply> next();
    // Sends the reply after its delay.
    void answer(const ScriptedReply& reply, httplib::Response& response);

    void close();

private:
    mutable std::mutex mutex_;
    std::condition_variable closing_;
    bool closed_ = false;
    std::vector<RecordedRequest> requests_;
    std::deque<ScriptedReply> queued_;
};

} // namespace quorlin::testing
