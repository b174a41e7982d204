#include "ApprovalItems.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/NativeStepResult.h"
#include "core/execution/ReceiptNaming.h"

#include <array>
#include <chrono>

namespace quorlin {

namespace {

std::string itemName(std::int64_t index) {
    return "item-" + std::to_string(index);
}

ApprovalProposal proposalFor(const WorkflowValue::Object& row, std::size_t position,
                             const std::vector<AttachmentManifestRow>& manifest,
                             const std::map<std::string, std::string>& previewPaths) {
    ApprovalProposal proposal;
    proposal.id = Uuid::random();
    proposal.index = static_cast<std::int64_t>(position) + 1;
    if (const auto found = row.find("index"); found != row.end()) {
        proposal.index = found->second.intValue().value_or(proposal.index);
    }
    const auto matched = manifestRow(proposal.index, row, manifest);
    const AttachmentManifestRow* entry = matched ? &*matched : nullptr;

    proposal.date = rowString(row, entry, {"date"}).value_or("");
    proposal.sender = rowString(row, entry, {"sender"}).value_or("");
    proposal.subject = rowString(row, entry, {"subject"}).value_or("");
    proposal.emailPreviewHTML = rowString(row, entry, {"email_preview_html", "emailPreviewHTML"});
    proposal.emailPreviewText = rowString(row, entry, {"email_preview_text", "emailPreviewText"});
    proposal.originalName =
        rowString(row, entry, {"original_name", "originalName"}).value_or(itemName(proposal.index));

    proposal.previewPath = rowString(row, nullptr, {"preview_path", "previewPath"});
    if (!proposal.previewPath) {
        if (const auto path = previewPaths.find(std::to_string(proposal.index));
            path != previewPaths.end()) {
            proposal.previewPath = path->second;
        }
    }

    // A name the model proposed is the user's starting point and stays as written; only a
    // row with no name gets one made up, and only if it can be tied to an attachment.
    if (auto named = rowString(row, nullptr, {"proposed_name", "proposedName", "name"})) {
        proposal.proposedName = std::move(*named);
    } else if (entry == nullptr && !isAttachmentManifestRow(row)) {
        proposal.proposedName = itemName(proposal.index);
    } else {
        proposal.proposedName = deterministicReceiptFilename(row, entry, proposal.index);
    }
    proposal.isSelected = true;
    return proposal;
}

} // namespace

std::vector<ApprovalProposal> approvalItems(const GenericWorkflowApprovalCheckpoint& checkpoint) {
    const auto table = checkpoint.approvalInputs.find("table");
    if (table == checkpoint.approvalInputs.end()) {
        return {};
    }
    const auto rows = approvalRows(table->second);
    const auto manifest = attachmentManifest(checkpoint.log.stepOutputs);
    const auto previewPaths = stringDictionaryOutput("preview_paths", checkpoint.log.stepOutputs);

    std::vector<ApprovalProposal> proposals;
    proposals.reserve(rows.size());
    for (std::size_t position = 0; position < rows.size(); ++position) {
        proposals.push_back(proposalFor(rows[position], position, manifest, previewPaths));
    }
    return proposals;
}

std::vector<WorkflowValue::Object> approvalRows(const WorkflowValue& value) {
    if (const auto* object = value.object()) {
        static constexpr std::array<const char*, 5> wrappers{"proposals", "approval_items",
                                                             "approved_table", "approved", "table"};
        for (const char* key : wrappers) {
            if (const auto found = object->find(key); found != object->end()) {
                auto rows = approvalRows(found->second);
                if (!rows.empty()) {
                    return rows;
                }
            }
        }
        return {*object};
    }
    std::vector<WorkflowValue::Object> rows;
    if (const auto* array = value.array()) {
        for (const auto& element : *array) {
            if (const auto* object = element.object()) {
                rows.push_back(*object);
            }
        }
    }
    return rows;
}

std::vector<AttachmentManifestRow> attachmentManifest(const StepOutputs& stepOutputs) {
    for (const auto& [stepID, outputs] : stepOutputs) {
        for (const char* key : {"pdf_manifest", "manifest"}) {
            const auto found = outputs.find(key);
            if (found == outputs.end()) {
                continue;
            }
            try {
                auto rows = decodeAttachmentManifest(toJson(found->second), stepID + "." + key);
                if (!rows.empty()) {
                    return rows;
                }
            } catch (const DecodingError&) {
                // Another step's output of the same name but another shape: not a manifest.
            }
        }
    }
    return {};
}

std::map<std::string, std::string> stringDictionaryOutput(std::string_view name,
                                                          const StepOutputs& stepOutputs) {
    for (const auto& [stepID, outputs] : stepOutputs) {
        const auto found = outputs.find(std::string(name));
        if (found == outputs.end() || !found->second.isObject()) {
            continue;
        }
        std::map<std::string, std::string> texts;
        bool allText = true;
        for (const auto& [key, value] : *found->second.object()) {
            if (!value.isString()) {
                allText = false;
                break;
            }
            texts.emplace(key, *value.string());
        }
        if (allText) {
            return texts;
        }
    }
    return {};
}

std::optional<AttachmentManifestRow>
manifestRow(std::int64_t index, const WorkflowValue::Object& row,
            const std::vector<AttachmentManifestRow>& manifest) {
    if (index >= 1 && static_cast<std::uint64_t>(index) <= manifest.size()) {
        return manifest[static_cast<std::size_t>(index - 1)];
    }
    const auto name = rowString(row, nullptr, {"original_name", "originalName"});
    const auto sender = rowString(row, nullptr, {"sender"});
    const auto date = rowString(row, nullptr, {"date"});
    for (const auto& entry : manifest) {
        if ((!name || entry.originalName == *name) && (!sender || entry.sender == *sender) &&
            (!date || entry.date == *date)) {
            return entry;
        }
    }
    return std::nullopt;
}

GenericScriptStepRunResult approvalStepResult(const FlowStep& /*step*/,
                                              const std::vector<ApprovalProposal>& approvedItems) {
    nlohmann::json table = nlohmann::json::array();
    for (const auto& item : approvedItems) {
        table.push_back(nlohmann::json::parse(toJson(item).dump()));
    }
    const WorkflowValueMap input{
        {"approved_count", static_cast<std::int64_t>(approvedItems.size())}};
    const WorkflowValueMap output{{"approved_table", workflowValueFromJson(table)}};
    return nativeStepResult(input, output, std::chrono::system_clock::now());
}

} // namespace quorlin
