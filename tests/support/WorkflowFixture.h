#pragma once

#include "core/definitions/WorkflowBundleLocator.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <string_view>

namespace quorlin::testing {

// A scratch installation: a resource directory whose "Workflows" folder the test fills
// with bundles, and a data root beside it.
class WorkflowFixture {
public:
    WorkflowFixture();

    // Writes a file into the bundle of flowID (e.g. "flow.yaml", "scripts/step.py").
    std::filesystem::path writeBundleFile(std::string_view flowID, std::string_view relativePath,
                                          std::string_view text) const;

    QuorlinResources resources() const;
    AppSupportPaths paths() const;
    WorkflowBundleLocator locator() const { return {resources(), paths()}; }
    const std::filesystem::path& root() const { return directory_.path(); }

private:
    TemporaryDirectory directory_;
};

// The system's own interpreter for a runtime ("/usr/bin/python3", "/usr/bin/node").
std::filesystem::path systemInterpreter(std::string_view runtime);

} // namespace quorlin::testing
