#pragma once

#include "core/definitions/WorkflowValue.h"

#include <filesystem>
#include <string>
#include <string_view>

namespace quorlin {

// A path a workflow gives for one of its own files, trimmed. A blank or absolute path, one
// starting with "~", holding a backslash, or with an empty, "." or ".." piece throws
// WorkflowLoaderError "Invalid bundled path: <path>".
std::string validateRelativeWorkflowPath(const std::string& path);

// The UTF-8 text of a file in the bundle. Besides the path's own check, a file that is a
// symbolic link or is missing throws WorkflowLoaderError, and one that is not UTF-8 FileError.
std::string bundledText(const std::string& relativePath,
                        const std::filesystem::path& bundleDirectory);

// The template with every "{{<key>}}" and "{{ <key> }}" replaced by that context value as
// JSON; "{{context}}" stands for the whole context. Replaced text is not protected from
// later keys.
std::string renderPromptTemplate(std::string_view templateText, const WorkflowValueMap& context);

// A value as pretty-printed JSON with sorted keys; a string keeps its quotes.
std::string jsonString(const WorkflowValue& value);

} // namespace quorlin
