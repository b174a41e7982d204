#include "StandardStepHandlers.h"

#include "core/definitions/StepTypes.h"
#include "core/execution/CheckSteps.h"
#include "core/execution/LLMSteps.h"
#include "core/execution/NativeStepHandlers.h"
#include "core/execution/ScriptSteps.h"

namespace quorlin {

StepHandlerRegistry standardStepHandlers(const StepServices& services) {
    using Folder = FolderStepHandler::Kind;
    auto dependencies =
        services.dependencyInstaller
            ? services.dependencyInstaller
            : std::make_shared<const ScriptDependencyInstaller>(
                  WorkflowBundleLocator(QuorlinResources::installed(), services.paths));
    const WorkflowScriptLauncher scripts(services.scriptRunner, services.paths, dependencies);
    const auto context = std::make_shared<ContextStepHandler>();
    auto anthropic =
        services.anthropicClient
            ? services.anthropicClient
            : std::make_shared<const AnthropicClient>(anthropicBaseURLFromEnvironment());

    StepHandlerRegistry registry;
    registry.setScriptBlockHandler(std::make_shared<ScriptBlockStepHandler>(scripts));
    registry.add(stepType::scriptRun, std::make_shared<PlainScriptStepHandler>(scripts));
    registry.add(stepType::filesystemInputFile,
                 std::make_shared<FolderStepHandler>(Folder::inputFile, services.paths));
    registry.add(stepType::filesystemInputFolder,
                 std::make_shared<FolderStepHandler>(Folder::inputFolder, services.paths));
    registry.add(stepType::filesystemOutputFolder,
                 std::make_shared<FolderStepHandler>(Folder::outputFolder, services.paths));
    registry.add(stepType::contextPrepare, context);
    registry.add(stepType::contextLoad, context);
    registry.add(stepType::llmGenerateStructured,
                 std::make_shared<LLMGenerateStructuredStepHandler>(std::move(anthropic), scripts));
    registry.add(stepType::batchApproval, std::make_shared<ApprovalGateStepHandler>());
    registry.add(stepType::nativeFileWrite, std::make_shared<FileWriteStepHandler>());
    registry.add(stepType::runtimeCheck, std::make_shared<RuntimeCheckStepHandler>(
                                             QuorlinResources::installed(), services.paths));
    registry.add(stepType::dependencyCheck,
                 std::make_shared<DependencyCheckStepHandler>(std::move(dependencies)));
    return registry;
}

} // namespace quorlin
