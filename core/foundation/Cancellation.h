#pragma once

#include "Error.h"

#include <stop_token>

namespace quorlin {

// Raised where work notices that its stop was requested; it carries no audit data.
class CancellationError : public Error {
public:
    CancellationError() : Error("The run was cancelled.") {}
};

inline void throwIfStopRequested(const std::stop_token& stopToken) {
    if (stopToken.stop_requested()) {
        throw CancellationError();
    }
}

} // namespace quorlin
