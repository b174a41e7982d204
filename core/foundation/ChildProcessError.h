#pragma once

#include "core/foundation/Error.h"

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>

namespace quorlin {

class ChildProcessError : public Error {
public:
    enum class Kind { launchFailed, timedOut, ioFailed, outputTooLarge };

    // The child wrote more than limit bytes to stream ("stdout" or "stderr").
    static ChildProcessError outputTooLarge(const std::filesystem::path& executable,
                                            const std::string& stream, std::size_t limit);

    // detail: the system's reason for launchFailed and ioFailed; unused for timedOut.
    ChildProcessError(Kind kind, const std::filesystem::path& executable, const std::string& detail,
                      std::chrono::duration<double> timeout = {});

    Kind kind() const { return kind_; }
    std::chrono::duration<double> timeout() const { return timeout_; }
    // For outputTooLarge: the stream and the limit it went past.
    const std::string& stream() const { return stream_; }
    std::size_t outputLimit() const { return outputLimit_; }

private:
    Kind kind_;
    std::chrono::duration<double> timeout_;
    std::string stream_;
    std::size_t outputLimit_ = 0;
};

} // namespace quorlin
