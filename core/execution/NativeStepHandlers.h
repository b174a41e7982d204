#pragma once

#include "core/execution/FolderSteps.h"
#include "core/execution/StepHandler.h"

namespace quorlin {

// The folder and file steps: each resolves the path a flow setting points at.
class FolderStepHandler final : public StepHandler {
public:
    enum class Kind { inputFile, inputFolder, outputFolder };

    FolderStepHandler(Kind kind, AppSupportPaths paths);
    GenericScriptStepRunResult run(const StepContext& context) const override;

private:
    Kind kind_;
    FolderSteps steps_;
};

// "context-prepare" and "context-load", one handler for both.
class ContextStepHandler final : public StepHandler {
public:
    GenericScriptStepRunResult run(const StepContext& context) const override;
};

// "native-file-write".
class FileWriteStepHandler final : public StepHandler {
public:
    GenericScriptStepRunResult run(const StepContext& context) const override;
};

// "batch-approval" met as an ordinary step: a run only passes its gate by stopping there
// and resuming with the user's answer, so reaching it here fails the step.
class ApprovalGateStepHandler final : public StepHandler {
public:
    GenericScriptStepRunResult run(const StepContext& context) const override;
};

} // namespace quorlin
