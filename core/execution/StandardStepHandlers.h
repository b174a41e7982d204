#pragma once

#include "core/definitions/AppSupportPaths.h"
#include "core/execution/ScriptRunner.h"
#include "core/execution/StepHandlerRegistry.h"

#include <memory>

namespace quorlin {

// The services the built-in step handlers are made with.
struct StepServices {
    std::shared_ptr<ScriptRunner> scriptRunner;
    AppSupportPaths paths;
};

// Every step handler this build has, registered by type.
StepHandlerRegistry standardStepHandlers(const StepServices& services);

} // namespace quorlin
