#pragma once

#include "core/definitions/RecordDecoding.h"
#include "core/definitions/WorkflowWarningList.h"

namespace quorlin::warnings {

// Keys the decoder passed over in the workflow document, each with the known key it is
// closest to.
std::vector<UnknownRecordKey> unknownWorkflowKeys(const YamlNode& raw);

// Those outside any step, said of the flow.
void addFlowKeyWarnings(const std::vector<UnknownRecordKey>& unknownKeys, WarningList& out);

// Those inside the step at index.
void addStepKeyWarnings(const FlowStep& step, std::size_t index,
                        const std::vector<UnknownRecordKey>& unknownKeys, WarningList& out);

// The keys of a bundle's own block manifest, read again from its file. One the validator
// accepted decodes here too; a file changed since then is passed over, as the next load
// reports it.
void addBlockManifestKeyWarnings(const StepScope& scope, WarningList& out);

} // namespace quorlin::warnings
