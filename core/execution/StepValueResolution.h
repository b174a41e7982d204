#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/execution/GenericScriptWorkflowRecords.h"
#include "core/foundation/LocalTime.h"

#include <string>
#include <string_view>

namespace quorlin {

// Two grammars, kept apart on purpose:
//  - value resolution replaces a string that is one whole "{{ steps.<id>.outputs[.<name>] }}"
//    reference by the referenced value, of whatever type; nothing else in a string changes;
//  - text rendering replaces every "{{ ... }}" in a template by text (profile values, step
//    outputs that are strings, and the month forms), leaving unknown tokens for later.
// Every failure is a WorkflowLoaderError whose text is the message.

WorkflowValue resolvedInputValue(const WorkflowValue& value, const StepOutputs& stepOutputs);
WorkflowValue resolvedTemplateString(const std::string& text, const StepOutputs& stepOutputs);
WorkflowValueMap resolvedInputs(const std::optional<WorkflowValueMap>& inputs,
                                const StepOutputs& stepOutputs);

// profile: the client profile as its JSON tree, so paths use the file's keys.
std::string renderTemplate(std::string_view templateText, const StepOutputs& stepOutputs,
                           const WorkflowValue& profile, SystemTime referenceDate);
std::string renderTemplateExpression(const std::string& expression, const StepOutputs& stepOutputs,
                                     const WorkflowValue& profile, SystemTime referenceDate);
std::string profileValue(const std::string& path, const WorkflowValue& profile);
std::string stepOutputValue(const std::string& expression, const StepOutputs& stepOutputs);

} // namespace quorlin
