#include "tests/support/WorkflowFixture.h"

#include <span>
#include <stdexcept>
#include <string>

namespace quorlin::testing {

WorkflowFixture::WorkflowFixture() {
    std::filesystem::create_directories(directory_.path() / "resources" / "Workflows");
}

std::filesystem::path WorkflowFixture::writeBundleFile(std::string_view flowID,
                                                       std::string_view relativePath,
                                                       std::string_view text) const {
    return directory_.write(
        "resources/Workflows/" + std::string(flowID) + "/" + std::string(relativePath), text);
}

QuorlinResources WorkflowFixture::resources() const {
    return {directory_.path() / "resources", std::nullopt};
}

AppSupportPaths WorkflowFixture::paths() const {
    return AppSupportPaths(directory_.path() / "data");
}

std::filesystem::path systemInterpreter(std::string_view runtime) {
    const char* candidates[] = {"/usr/bin/python3", "/usr/local/bin/python3"};
    const char* nodeCandidates[] = {"/usr/bin/node", "/usr/bin/nodejs", "/usr/local/bin/node"};
    for (const char* candidate : runtime == "python" ? std::span<const char*>(candidates)
                                                     : std::span<const char*>(nodeCandidates)) {
        if (std::filesystem::exists(candidate)) {
            return candidate;
        }
    }
    throw std::runtime_error("no system interpreter for " + std::string(runtime));
}

} // namespace quorlin::testing
