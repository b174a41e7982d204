#include "ClientProfileError.h"

namespace quorlin {

ClientProfileError::ClientProfileError(Kind kind, std::string role)
    : Error("Can't save the LLM route of the role '" + role + "': llm_routing uses '" + role +
            "' for its own setting. Choose another role name."),
      kind_(kind), role_(std::move(role)) {}

} // namespace quorlin
