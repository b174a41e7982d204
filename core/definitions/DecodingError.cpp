#include "DecodingError.h"

namespace quorlin {

namespace {

std::string where(const std::string& codingPath) {
    return codingPath.empty() ? "at the document root" : "at " + codingPath;
}

std::string compose(DecodingError::Kind kind, const std::string& codingPath,
                    const std::string& subject, const std::string& found) {
    switch (kind) {
    case DecodingError::Kind::keyNotFound:
        return "Missing required key '" + subject + "' " + where(codingPath);
    case DecodingError::Kind::typeMismatch:
        return "Expected " + subject + " " + where(codingPath) + ", found " + found;
    case DecodingError::Kind::dataCorrupted:
        return subject + " " + where(codingPath);
    }
    return subject;
}

} // namespace

DecodingError::DecodingError(Kind kind, std::string codingPath, std::string subject,
                             const std::string& found, YamlMark mark)
    : Error(withYamlMark(compose(kind, codingPath, subject, found), mark)), kind_(kind),
      codingPath_(std::move(codingPath)), subject_(std::move(subject)), mark_(mark) {}

} // namespace quorlin
