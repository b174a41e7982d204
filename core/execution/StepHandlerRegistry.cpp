#include "StepHandlerRegistry.h"

#include "core/definitions/StepTypes.h"

namespace quorlin {

StepHandlerRegistry::StepHandlerRegistry()
    : supported_(stepType::knownStepTypes.begin(), stepType::knownStepTypes.end()) {}

void StepHandlerRegistry::add(std::string_view type, std::shared_ptr<const StepHandler> handler) {
    supported_.emplace(type);
    handlers_.insert_or_assign(std::string(type), std::move(handler));
}

void StepHandlerRegistry::setScriptBlockHandler(std::shared_ptr<const StepHandler> handler) {
    scriptBlockHandler_ = std::move(handler);
}

const StepHandler& StepHandlerRegistry::handlerFor(const FlowStep& step,
                                                   const LoadedWorkflow& workflow) const {
    if (const auto found = workflow.blockResolutions.find(step.id);
        found != workflow.blockResolutions.end() && scriptBlockHandler_) {
        const auto& execution = found->second.definition.execution;
        if (execution && execution->kind == BlockExecutionKind::script) {
            return *scriptBlockHandler_;
        }
    }
    // A block of kind native, or with no execution, adds nothing here: its type decides.
    if (const auto found = handlers_.find(step.type); found != handlers_.end() && found->second) {
        return *found->second;
    }
    throw ExecutionEngineError(ExecutionEngineError::Kind::missingHandler, step.type);
}

} // namespace quorlin
