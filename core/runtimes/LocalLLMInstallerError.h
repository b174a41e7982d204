#pragma once

#include "core/foundation/Error.h"

#include <string>

namespace quorlin {

// Why the local model server could not be installed, started, stopped or fed a model.
class LocalLLMInstallerError : public Error {
public:
    enum class Kind {
        invalidBaseURL,     // the server address in the settings is not a URL
        downloadFailed,     // Ollama could not be fetched or checked; nothing was installed
        processFailed,      // unpacking, the server or a pull failed; the detail says how
        ollamaNotInstalled, // nothing to run
        cliUnavailable,     // no ollama executable in any of the places looked in
    };

    // url: the address as the settings hold it.
    static LocalLLMInstallerError invalidBaseURL(std::string url);
    // detail: the whole text the user reads.
    static LocalLLMInstallerError downloadFailed(std::string detail);
    static LocalLLMInstallerError processFailed(std::string detail);
    static LocalLLMInstallerError ollamaNotInstalled();
    static LocalLLMInstallerError cliUnavailable();

    Kind kind() const { return kind_; }
    // The URL or the detail, by kind; empty for the others.
    const std::string& detail() const { return detail_; }

private:
    LocalLLMInstallerError(Kind kind, std::string detail);
    static std::string compose(Kind kind, const std::string& detail);

    Kind kind_;
    std::string detail_;
};

} // namespace quorlin
