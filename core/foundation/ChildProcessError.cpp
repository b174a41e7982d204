#include "ChildProcessError.h"

#include "core/foundation/Text.h"

#include <locale>
#include <sstream>

namespace quorlin {

namespace {

using Kind = ChildProcessError::Kind;

std::string formatSeconds(double seconds) {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << seconds;
    return text.str();
}

std::string composeMessage(Kind kind, const std::filesystem::path& executable,
                           const std::string& detail, std::chrono::duration<double> timeout) {
    switch (kind) {
    case Kind::launchFailed:
        return "Could not start " + executable.string() + ": " + detail;
    case Kind::timedOut:
        return executable.string() + " timed out after " + formatSeconds(timeout.count()) + "s";
    case Kind::ioFailed:
        return "Could not exchange data with " + executable.string() + ": " + detail;
    case Kind::outputTooLarge:
        return executable.string() + " wrote more than " + detail;
    }
    return executable.string() + ": " + detail;
}

} // namespace

ChildProcessError::ChildProcessError(Kind kind, const std::filesystem::path& executable,
                                     const std::string& detail,
                                     std::chrono::duration<double> timeout)
    : Error(composeMessage(kind, executable, detail, timeout)), kind_(kind), timeout_(timeout) {}

ChildProcessError ChildProcessError::outputTooLarge(const std::filesystem::path& executable,
                                                    const std::string& stream, std::size_t limit) {
    ChildProcessError error(Kind::outputTooLarge, executable,
                            byteSizeText(limit) + " to " + stream);
    error.stream_ = stream;
    error.outputLimit_ = limit;
    return error;
}

} // namespace quorlin
