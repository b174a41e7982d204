#pragma once

#include "core/definitions/WorkflowBundleLocator.h"
#include "core/execution/ScriptRunner.h"

#include <filesystem>
#include <functional>

namespace quorlin {

// Runs a workflow's script as a child process: the interpreter with the script's
// absolute path as its one argument, the input document on stdin, the parent's
// environment with PYTHONUNBUFFERED=1 and the invocation's pairs laid over it.
class DefaultScriptRunner final : public ScriptRunner {
public:
    using RuntimeProvider = std::function<std::filesystem::path(ScriptRuntime)>;

    // Without a provider the interpreter is found by defaultRuntimePath.
    explicit DefaultScriptRunner(WorkflowBundleLocator locator,
                                 RuntimeProvider runtimeProvider = {});

    ScriptResult run(const ScriptInvocation& invocation, std::stop_token stopToken) override;

    // The script a workflow's relative path names: refused when it holds "..", looked
    // up in the invocation's bundle folder when it names one, else in the workflow's
    // active installed bundle, else its bundled one, and required to exist. The bundle is
    // looked up afresh by id on every run.
    std::filesystem::path scriptPath(const ScriptInvocation& invocation,
                                     const std::string& relativePath) const;

    // The managed runtime under the data root when it is installed, else the launcher
    // named "quorlin-python" or "quorlin-node" beside the executable.
    static std::filesystem::path defaultRuntimePath(ScriptRuntime runtime,
                                                    const QuorlinResources& resources,
                                                    const AppSupportPaths& paths);

private:
    WorkflowBundleLocator locator_;
    RuntimeProvider runtimeProvider_;
};

} // namespace quorlin
