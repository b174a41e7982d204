#pragma once

#include "core/foundation/Error.h"
#include "core/foundation/YamlMark.h"

#include <string>

namespace quorlin {

// A workflow document (or another record file) that parsed but does not fit its records.
// The coding path names where, in the form "flow.steps[2].on_error"; an empty path is the
// document root.
class DecodingError : public Error {
public:
    enum class Kind { keyNotFound, typeMismatch, dataCorrupted };

    // subject: the missing key for keyNotFound, what was expected ("an integer") for
    // typeMismatch, the description ("Unsupported workflow value") for dataCorrupted.
    // found: for typeMismatch, what was there instead ("\"abc\"", "a sequence").
    // mark: where in the source; a mark with line 0 is left out of the message.
    DecodingError(Kind kind, std::string codingPath, std::string subject,
                  const std::string& found = {}, YamlMark mark = {});

    Kind kind() const { return kind_; }
    const std::string& codingPath() const { return codingPath_; }
    const std::string& subject() const { return subject_; }
    const YamlMark& mark() const { return mark_; }

private:
    Kind kind_;
    std::string codingPath_;
    std::string subject_;
    YamlMark mark_;
};

} // namespace quorlin
