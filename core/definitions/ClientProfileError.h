#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

// A profile that can't be written as a file that reads back the same.
class ClientProfileError : public Error {
public:
    enum class Kind { reservedRoutingRole };

    // role: the route whose name llm_routing keeps for itself ("default", "workflows", ...).
    ClientProfileError(Kind kind, std::string role);

    Kind kind() const { return kind_; }
    const std::string& role() const { return role_; }

private:
    Kind kind_;
    std::string role_;
};

} // namespace quorlin
