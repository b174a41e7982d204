#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/execution/ScriptRunner.h"
#include "core/execution/StepHandlerRegistry.h"
#include "core/runtimes/ScriptDependencyInstaller.h"
#include "core/services/AnthropicClient.h"

#include <memory>

namespace quorlin {

// The services the built-in step handlers are made with.
struct StepServices {
    std::shared_ptr<ScriptRunner> scriptRunner;
    AppSupportPaths paths;
    // Absent: one at anthropicBaseURLFromEnvironment(), so the command line can point the
    // LLM steps at another address.
    std::shared_ptr<const AnthropicClient> anthropicClient = nullptr;
    // Installs a workflow's script packages before its scripts run. Absent: one over this
    // installation's resources and the paths above.
    std::shared_ptr<const ScriptDependencyInstaller> dependencyInstaller = nullptr;
};

// Every step handler this build has, registered by type.
StepHandlerRegistry standardStepHandlers(const StepServices& services);

} // namespace quorlin
