#include "core/runtimes/LocalLLMPullReader.h"

#include "core/foundation/Json.h"
#include "core/foundation/Text.h"
#include "core/runtimes/LocalLLMInstallerError.h"

#include <utility>

namespace quorlin {

namespace {

// Far above any progress line; a reply that never ends a line is not Ollama's.
constexpr std::size_t lineLimit = 1 << 20;
constexpr std::size_t quotedLineLength = 200;

LocalLLMInstallerError pullFailed(const std::string& model, const std::string& reason) {
    return LocalLLMInstallerError::processFailed("Ollama couldn't pull " + model + ": " + reason);
}

std::optional<std::uint64_t> byteCount(const nlohmann::json& line, const char* key) {
    const auto found = line.find(key);
    if (found == line.end() || !found->is_number() || found->get<double>() < 0) {
        return std::nullopt;
    }
    return found->get<std::uint64_t>();
}

std::string lineExcerpt(std::string_view line) {
    std::string text = escapedControlBytes(line.substr(0, quotedLineLength));
    return line.size() > quotedLineLength ? text + "..." : text;
}

} // namespace

LocalLLMPullReader::LocalLLMPullReader(std::string model, LocalLLMProgressCallback progress)
    : model_(std::move(model)), progress_(std::move(progress)) {}

void LocalLLMPullReader::read(std::string_view piece) {
    pending_.append(piece);
    std::size_t start = 0;
    for (auto end = pending_.find('\n'); end != std::string::npos;
         end = pending_.find('\n', start)) {
        readLine(std::string_view(pending_).substr(start, end - start));
        start = end + 1;
    }
    pending_.erase(0, start);
    if (pending_.size() > lineLimit) {
        throw pullFailed(model_,
                         "the server sent a line longer than " + byteSizeText(lineLimit) + ".");
    }
}

void LocalLLMPullReader::finish() {
    if (!trimmed(pending_).empty()) {
        readLine(pending_);
    }
    pending_.clear();
    if (!succeeded_) {
        throw pullFailed(model_, "the server ended the download before it finished.");
    }
}

void LocalLLMPullReader::readLine(std::string_view line) {
    if (trimmed(line).empty()) {
        return;
    }
    const nlohmann::json json = parseJsonOrDiscarded(line);
    if (!json.is_object()) {
        throw pullFailed(model_, "the server sent a line that isn't a progress report: " +
                                     lineExcerpt(line));
    }
    if (const auto error = json.find("error"); error != json.end()) {
        throw pullFailed(model_, error->is_string() ? error->get<std::string>() : error->dump());
    }
    const auto status = json.find("status");
    if (status == json.end() || !status->is_string()) {
        return; // a line of a kind this reader doesn't know; the next one may
    }
    LocalLLMProgress step{LocalLLMProgress::Stage::pulling, status->get<std::string>(), {}};
    step.transfer.receivedBytes = byteCount(json, "completed").value_or(0);
    step.transfer.totalBytes = byteCount(json, "total");
    if (step.status == "success") {
        succeeded_ = true;
    }
    if (progress_) {
        progress_(step);
    }
}

std::string ollamaRefusal(const std::string& body) {
    const nlohmann::json json = parseJsonOrDiscarded(body);
    if (json.is_object()) {
        if (const auto error = json.find("error"); error != json.end() && error->is_string()) {
            return error->get<std::string>();
        }
    }
    return lineExcerpt(trimmed(body));
}

} // namespace quorlin
