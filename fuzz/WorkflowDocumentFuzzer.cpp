// Feeds arbitrary bytes to the YAML reader and the workflow document decoder. Either may
// refuse the input with one of our errors; anything else (a crash, a sanitizer report, an
// exception of another kind, a hang) is a finding.

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/YamlError.h"
#include "core/foundation/YamlNode.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        quorlin::parseYaml(text);
    } catch (const quorlin::Error&) {
        // refused with our words: fine
    }
    try {
        quorlin::decodeWorkflowDocumentYaml(text);
    } catch (const quorlin::Error&) {
        // refused with our words: fine
    }
    return 0;
}
