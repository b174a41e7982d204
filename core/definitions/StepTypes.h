#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin::stepType {

// The step types a workflow document may name. A type listed here but with no handler
// registered yet fails its step by name; any other type fails the run before its step.
inline constexpr std::string_view runtimeCheck = "runtime-check";
inline constexpr std::string_view dependencyCheck = "dependency-check";
inline constexpr std::string_view scriptRun = "script-run";
inline constexpr std::string_view llmGenerateStructured = "llm-generate-structured";
inline constexpr std::string_view settingsGate = "settings-gate";
inline constexpr std::string_view nativeGoogleRead = "native-google-read";
inline constexpr std::string_view filesystemInputFile = "filesystem-input-file";
inline constexpr std::string_view filesystemInputFolder = "filesystem-input-folder";
inline constexpr std::string_view filesystemOutputFolder = "filesystem-output-folder";
inline constexpr std::string_view contextPrepare = "context-prepare";
inline constexpr std::string_view contextLoad = "context-load";
inline constexpr std::string_view gmailSearch = "gmail-search";
inline constexpr std::string_view gmailListAttachments = "gmail-list-attachments";
inline constexpr std::string_view batchApproval = "batch-approval";
inline constexpr std::string_view gmailDownloadAttachments = "gmail-download-attachments";
inline constexpr std::string_view nativeFileWrite = "native-file-write";

inline constexpr std::array knownStepTypes{
    runtimeCheck,          dependencyCheck,       scriptRun,
    llmGenerateStructured, settingsGate,          nativeGoogleRead,
    filesystemInputFile,   filesystemInputFolder, filesystemOutputFolder,
    contextPrepare,        contextLoad,           gmailSearch,
    gmailListAttachments,  batchApproval,         gmailDownloadAttachments,
    nativeFileWrite};

} // namespace quorlin::stepType

namespace quorlin {

// The step types as owned text, in their listed order, for lists shown to people and for
// "did you mean" hints.
inline std::vector<std::string> knownStepTypeNames() {
    return {stepType::knownStepTypes.begin(), stepType::knownStepTypes.end()};
}

} // namespace quorlin
