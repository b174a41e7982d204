#include "core/execution/CheckSteps.h"

#include "core/execution/NativeStepResult.h"
#include "core/execution/ScriptSteps.h"
#include "core/runtimes/InterpreterLocator.h"
#include "core/runtimes/ScriptDependencyInstallerError.h"

#include <chrono>

namespace quorlin {

namespace {

WorkflowValueMap auditInput(const FlowStep& step) {
    return step.config.value_or(WorkflowValueMap{});
}

std::string runtimeTitle(ScriptRuntime runtime) {
    return runtime == ScriptRuntime::python ? "Python" : "Node";
}

} // namespace

RuntimeCheckStepHandler::RuntimeCheckStepHandler(QuorlinResources resources, AppSupportPaths paths)
    : resources_(std::move(resources)), paths_(std::move(paths)) {}

GenericScriptStepRunResult RuntimeCheckStepHandler::run(const StepContext& context) const {
    const auto startedAt = std::chrono::system_clock::now();
    const auto runtime = stepScriptRuntime(context.step);
    for (const auto& candidate : interpreterCandidates(runtime, resources_, paths_)) {
        if (!candidate.available) {
            continue;
        }
        const bool managed = candidate.source == InterpreterCandidate::Source::managed;
        const WorkflowValueMap output{{"runtime", std::string(rawValue(runtime))},
                                      {"installed", true},
                                      {"workflow_id", context.workflow.flow().id},
                                      {"interpreter", candidate.path.string()},
                                      {"interpreter_source", managed ? "managed" : "system"}};
        return nativeStepResult(auditInput(context.step), output, startedAt);
    }
    throw ScriptDependencyInstallerError::runtimeNotInstalled(runtimeTitle(runtime));
}

DependencyCheckStepHandler::DependencyCheckStepHandler(
    std::shared_ptr<const ScriptDependencyInstaller> installer)
    : installer_(std::move(installer)) {}

GenericScriptStepRunResult DependencyCheckStepHandler::run(const StepContext& context) const {
    const auto startedAt = std::chrono::system_clock::now();
    const FlowStep& step = context.step;
    const auto runtime = stepScriptRuntime(step);
    const auto& request = context.request;
    ScriptDependencyOutput output;
    if (request.scriptErrorOutput) {
        output = [&request, &step](std::string_view text) {
            request.scriptErrorOutput(step.id, text);
        };
    }
    // The manifests of the bundle this run loaded, whatever its source.
    const auto log = installer_->installDependenciesIfNeeded(
        {context.workflow.flow().id, context.workflow.reference.directory}, runtime,
        request.stopToken, output);
    const WorkflowValueMap result{{"runtime", std::string(rawValue(runtime))},
                                  {"ready", true},
                                  {"installed", log.has_value()}};
    return nativeStepResult(auditInput(step), result, startedAt);
}

} // namespace quorlin
