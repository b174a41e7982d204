#include "tests/support/ScriptedReplies.h"

namespace quorlin::testing {

std::string RecordedRequest::header(const std::string& name) const {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
}

void ScriptedReplies::record(const httplib::Request& request) {
    const std::lock_guard lock(mutex_);
    requests_.push_back({request.method, request.path, request.headers, request.body});
}

std::vector<RecordedRequest> ScriptedReplies::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void ScriptedReplies::push(ScriptedReply reply) {
    const std::lock_guard lock(mutex_);
    queued_.push_back(std::move(reply));
}

std::optional<ScriptedReply> ScriptedReplies::next() {
    const std::lock_guard lock(mutex_);
    if (queued_.empty()) {
        return std::nullopt;
    }
    ScriptedReply reply = std::move(queued_.front());
    queued_.pop_front();
    return reply;
}

void ScriptedReplies::answer(const ScriptedReply& reply, httplib::Response& response) {
    if (reply.delay.count() > 0) {
        std::unique_lock lock(mutex_);
        closing_.wait_for(lock, reply.delay, [this] { return closed_; });
    }
    response.status = reply.status;
    response.set_content(reply.body, reply.contentType);
}

void ScriptedReplies::close() {
    {
        const std::lock_guard lock(mutex_);
        closed_ = true;
    }
    closing_.notify_all();
}

} // namespace quorlin::testing
