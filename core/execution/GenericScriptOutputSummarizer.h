#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quorlin {

// Turns what a run printed into the one line the audit log and the run's card show, and
// finds the folder it wrote to. Both read the text as one JSON object; several steps'
// joined stdout is not one, so the rules bite when one step alone printed.
namespace GenericScriptOutputSummarizer {

std::string summary(std::string_view stdoutText);
std::optional<std::string> outputFolder(std::string_view stdoutText);

} // namespace GenericScriptOutputSummarizer

} // namespace quorlin
