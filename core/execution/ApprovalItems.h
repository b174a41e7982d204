#pragma once

#include "core/execution/ApprovalProposal.h"
#include "core/execution/AttachmentManifestRow.h"
#include "core/execution/GenericScriptWorkflowRecords.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The rows the user reviews at the gate: one per row of the gate's "table" input (of any
// of the accepted shapes), matched to the attachment manifest and preview files of the
// earlier steps, each with a proposed file name.
std::vector<ApprovalProposal> approvalItems(const GenericWorkflowApprovalCheckpoint& checkpoint);

// The gate's own step result once the user has decided: the approved rows, whole, under
// "approved_table", so a later filing step reads back the names as the user left them.
GenericScriptStepRunResult approvalStepResult(const FlowStep& step,
                                              const std::vector<ApprovalProposal>& approvedItems);

// The rows of a model's table, whatever its shape: an array gives its objects; an object
// gives the first non-empty rows under "proposals", "approval_items", "approved_table",
// "approved" or "table" (looked into at any depth), else is itself the one row; anything
// else gives none.
std::vector<WorkflowValue::Object> approvalRows(const WorkflowValue& value);

// The first non-empty "pdf_manifest" or "manifest" output of any earlier step that reads
// as manifest rows; outputs of another shape are passed over.
std::vector<AttachmentManifestRow> attachmentManifest(const StepOutputs& stepOutputs);

// The first earlier output of that name that reads as a map of texts, else an empty map.
std::map<std::string, std::string> stringDictionaryOutput(std::string_view name,
                                                          const StepOutputs& stepOutputs);

// The manifest entry a row stands for: the entry at position index (from 1) when there is
// one, whatever the row says; else the first entry agreeing with the row's original name,
// sender and date (those it has); else nothing.
std::optional<AttachmentManifestRow>
manifestRow(std::int64_t index, const WorkflowValue::Object& row,
            const std::vector<AttachmentManifestRow>& manifest);

} // namespace quorlin
