// The native blocks compiled into the program. They declare only what step validation
// needs: a step naming one may pass only the inputs listed here, and the handlers read
// their settings from the step's config and action.

#include "core/definitions/BlockRegistry.h"
#include "core/definitions/StepTypes.h"

#include <initializer_list>
#include <string_view>
#include <utility>

namespace quorlin {

namespace {

struct Field {
    const char* name;
    const char* type;
    bool required = false;
};

BlockFields fields(std::initializer_list<Field> list) {
    BlockFields result;
    for (const auto& field : list) {
        BlockFieldSchema schema;
        schema.type = field.type;
        if (field.required) {
            schema.required = true;
        }
        result.emplace(field.name, std::move(schema));
    }
    return result;
}

BlockDefinition native(const char* id, const char* name, std::string_view handlerType,
                       std::vector<std::string> capabilities, BlockFields inputs,
                       BlockFields outputs, const char* summary) {
    BlockDefinition definition;
    definition.id = id;
    definition.name = name;
    definition.version = "0.1.0";
    definition.summary = summary;
    definition.kind = BlockKind::native;
    definition.handlerType = handlerType;
    definition.capabilities = std::move(capabilities);
    definition.inputs = std::move(inputs);
    definition.outputs = std::move(outputs);
    return definition;
}

std::vector<BlockDefinition> catalogue() {
    return {
        native("context.prepare-run", "Prepare Run Context", stepType::contextPrepare,
               {"filesystem.read.user_selected", "filesystem.write.derived"}, {},
               fields({{"naming_examples", "array"}, {"folder_context", "object"}}),
               "Resolve run folders, staging context, reference date, and naming examples for "
               "file-based workflows."),
        native("context.load-examples", "Load Naming Examples", stepType::contextLoad,
               {"filesystem.read.user_selected"}, {},
               fields({{"naming_examples", "array"}, {"folder_context", "object"}}),
               "Read a workflow history folder and return naming examples."),
        native("filesystem.input-folder", "Input Folder", stepType::filesystemInputFolder,
               {"filesystem.read.user_selected"}, {},
               fields({{"input_folder", "string"}, {"folder", "string"}, {"files", "array"}}),
               "Resolve an app-managed or user-selected workflow input folder and optionally list "
               "its files."),
        native("filesystem.input-file", "Input File", stepType::filesystemInputFile,
               {"filesystem.read.user_selected"}, {},
               fields({{"input_file", "string"},
                       {"file", "string"},
                       {"file_name", "string"},
                       {"extension", "string"},
                       {"size_bytes", "number"}}),
               "Resolve a user-selected workflow input file and return basic file metadata."),
        native("filesystem.output-folder", "Output Folder", stepType::filesystemOutputFolder,
               {"filesystem.write.user_selected"}, {},
               fields({{"output_folder", "string"}, {"folder", "string"}}),
               "Resolve and create an app-managed or user-selected workflow output folder."),
        native("gmail.search-messages", "Gmail Search Messages", stepType::gmailSearch,
               {"google.gmail.readonly"}, {}, fields({{"messages", "array"}}),
               "Search Gmail messages using a readonly query."),
        native("gmail.list-attachments", "Gmail List Attachments", stepType::gmailListAttachments,
               {"google.gmail.readonly"}, fields({{"messages", "array", true}}),
               fields({{"manifest", "array"},
                       {"pdf_manifest", "array"},
                       {"candidates", "array"},
                       {"preview_paths", "object"},
                       {"staged_files", "array"}}),
               "Expand Gmail messages into attachment metadata."),
        native("llm.generate-structured", "Generate Structured LLM Output",
               stepType::llmGenerateStructured, {"llm.generate"}, fields({{"context", "object", true}}),
               fields({{"output", "object"},
                       {"briefing", "object"},
                       {"proposals", "array"},
                       {"llm_cost_usd", "number"}}),
               "Render a bundled prompt with workflow context and ask the app LLM provider for "
               "JSON."),
        native("human.batch-approval", "Batch Approval", stepType::batchApproval, {"approval.ui"},
               fields({{"table", "array", true}, {"candidates", "array"}}),
               fields({{"approved_table", "array"}, {"approved", "array"}}),
               "Pause for editable batch approval."),
        native("gmail.download-attachments", "Gmail Download Attachments",
               stepType::gmailDownloadAttachments, {"google.gmail.readonly", "filesystem.write.derived"},
               fields({{"approved_table", "array", true}, {"candidates", "array", true}}),
               fields({{"staged_files", "array"}}),
               "Download approved Gmail attachments into staging."),
        native("filesystem.rename-and-file", "Rename and File", stepType::nativeFileWrite,
               {"filesystem.write.derived"},
               fields({{"staged_files", "array", true}, {"approved_table", "array", true}}),
               fields({{"final_files", "array"}, {"output_folder", "string"}}),
               "Rename staged files and move them to a derived destination folder."),
        native("settings.google-oauth-gate", "Google OAuth Gate", stepType::settingsGate,
               {"settings.read", "google.oauth"}, {}, fields({{"authorized", "boolean"}}),
               "Require an active Google OAuth connection before continuing."),
        native("managed-runtime.check", "Managed Runtime Check", stepType::runtimeCheck,
               {"managed_runtime.read"}, {},
               fields({{"runtime", "string"}, {"installed", "boolean"}, {"workflow_id", "string"}}),
               "Verify an Quorlin managed script runtime is installed."),
        native("managed-runtime.dependencies", "Managed Runtime Dependencies", stepType::dependencyCheck,
               {"managed_runtime.dependencies"}, {},
               fields({{"runtime", "string"}, {"ready", "boolean"}, {"installed", "boolean"}}),
               "Install or verify workflow dependencies for a managed script runtime."),
        native("google.workspace-read", "Google Workspace Read", stepType::nativeGoogleRead,
               {"google.gmail.readonly", "google.drive.readonly"}, {},
               fields({{"messages", "array"}, {"files", "array"}}),
               "Read a bounded Gmail or Google Drive summary using the configured Google account."),
    };
}

} // namespace

const std::vector<BlockDefinition>& builtInBlockDefinitions() {
    static const std::vector<BlockDefinition> definitions = catalogue();
    return definitions;
}

} // namespace quorlin
