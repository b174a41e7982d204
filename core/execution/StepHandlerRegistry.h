#pragma once

#include "core/execution/StepHandler.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace quorlin {

// Which handler runs which step. The driver asks it for every step; nothing else in the
// engine dispatches on a step's type.
class StepHandlerRegistry {
public:
    using TypeSet = std::set<std::string, std::less<>>;

    // Knows every step type of the workflow vocabulary, with no handler yet.
    StepHandlerRegistry();

    // The handler for steps of this type; a second registration of a type replaces the first.
    void add(std::string_view type, std::shared_ptr<const StepHandler> handler);
    // The handler for a step bound to a block whose execution is a script, whatever the
    // step's type says.
    void setScriptBlockHandler(std::shared_ptr<const StepHandler> handler);

    // The types a workflow may use; a run meeting any other fails before that step.
    const TypeSet& supportedStepTypes() const { return supported_; }
    bool supports(std::string_view type) const { return supported_.contains(type); }

    // The handler for a step: the script block handler when the step's block runs a
    // script, else the handler of its type. A supported type whose handler this build
    // lacks throws ExecutionEngineError (missingHandler).
    const StepHandler& handlerFor(const FlowStep& step, const LoadedWorkflow& workflow) const;

private:
    TypeSet supported_;
    std::map<std::string, std::shared_ptr<const StepHandler>, std::less<>> handlers_;
    std::shared_ptr<const StepHandler> scriptBlockHandler_;
};

} // namespace quorlin
