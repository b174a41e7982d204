#include "NativeStepHandlers.h"

#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ContextSteps.h"

namespace quorlin {

namespace {

// The client profile as the JSON tree that folder templates look into.
WorkflowValue profileValue(const StepContext& context) {
    return toWorkflowValue(context.request.clientProfile.clientProfile);
}

} // namespace

FolderStepHandler::FolderStepHandler(Kind kind, AppSupportPaths paths)
    : kind_(kind), steps_(std::move(paths)) {}

GenericScriptStepRunResult FolderStepHandler::run(const StepContext& context) const {
    const FlowDefinition& workflow = context.workflow.flow();
    const auto& overrides = context.request.environmentOverrides;
    switch (kind_) {
    case Kind::inputFile:
        return steps_.inputFile(workflow, context.step, profileValue(context), overrides);
    case Kind::inputFolder:
        return steps_.inputFolder(workflow, context.step, profileValue(context), overrides);
    case Kind::outputFolder:
        break;
    }
    return steps_.outputFolder(workflow, context.step, profileValue(context), overrides);
}

GenericScriptStepRunResult ContextStepHandler::run(const StepContext& context) const {
    return runContextPrepareStep(context.workflow.reference.directory, context.step,
                                 context.log.stepOutputs, profileValue(context),
                                 context.request.clientProfile.clientProfile.gmail.targetYearMonth,
                                 context.log.stagingDirectory);
}

GenericScriptStepRunResult FileWriteStepHandler::run(const StepContext& context) const {
    return runNativeFileWriteStep(context.step, context.log.stepOutputs);
}

GenericScriptStepRunResult ApprovalGateStepHandler::run(const StepContext& context) const {
    throw GenericWorkflowStepError(GenericWorkflowStepError::Kind::approvalRequired,
                                   context.step.id);
}

} // namespace quorlin
