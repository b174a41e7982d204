#pragma once

#include "core/foundation/Error.h"

#include <string>
#include <string_view>

namespace quorlin {

class BlockReferenceError : public Error {
public:
    enum class Kind { invalidFormat, invalidID, invalidVersion };

    // text: the whole reference for invalidFormat, else the offending part.
    BlockReferenceError(Kind kind, const std::string& text);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

// "<block id>@<exact semantic version>", as a step names its block.
struct BlockReference {
    std::string id;
    std::string version;

    // Throws BlockReferenceError.
    static BlockReference parse(std::string_view text);

    std::string text() const { return id + "@" + version; }

    friend bool operator==(const BlockReference&, const BlockReference&) = default;
};

} // namespace quorlin
