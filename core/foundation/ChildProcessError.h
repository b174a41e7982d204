#pragma once

#include "core/foundation/Error.h"

#include <chrono>
#include <filesystem>
#include <string>

namespace quorlin {

class ChildProcessError : public Error {
public:
    enum class Kind { launchFailed, timedOut, ioFailed };

    // detail: the system's reason for launchFailed and ioFailed; unused for timedOut.
    ChildProcessError(Kind kind, const std::filesystem::path& executable, const std::string& detail,
                      std::chrono::duration<double> timeout = {});

    Kind kind() const { return kind_; }
    std::chrono::duration<double> timeout() const { return timeout_; }

private:
    Kind kind_;
    std::chrono::duration<double> timeout_;
};

} // namespace quorlin
