#pragma once

#include "core/definitions/BlockDefinition.h"
#include "core/definitions/BlockReference.h"
#include "core/definitions/BlockRegistry.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/foundation/Error.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

class WorkflowBlockValidationError : public Error {
public:
    enum class Kind {
        invalidReference,     // stepID, value, message
        missingBlock,         // stepID, reference
        blockIDMismatch,      // stepID, expected, actual
        blockVersionMismatch, // stepID, id, expected, actual
        handlerTypeMismatch,  // stepID, blockID, expected, actual
        unknownInput,         // stepID, blockID, input
        missingRequiredInput, // stepID, blockID, input
        unknownOutput,        // stepID, blockID, output
        invalidBundledPath,   // stepID, blockID, path
        missingBundledPath,   // stepID, blockID, path
        invalidBlockManifest, // path, message
        invalidTimeout,       // stepID, seconds as written
        invalidOutputLimit    // stepID, the value as written
    };

    // The payload in the order listed beside each kind; unused ones stay empty.
    WorkflowBlockValidationError(Kind kind, const std::string& first,
                                 const std::string& second = {}, const std::string& third = {},
                                 const std::string& fourth = {});

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

// What validation found for one step that names a block.
struct WorkflowBlockResolution {
    std::string stepID;
    BlockReference reference;
    BlockDefinition definition;
    BlockDefinitionSource source = BlockDefinitionSource::builtin;
    std::optional<std::filesystem::path> definitionPath; // the block.yaml of a bundled block
};

// Checks a document's steps against their blocks: a bundle's own block.yaml first, the
// built-in catalogue otherwise. The first failing step ends the check. It never runs
// code and never writes.
class WorkflowBlockValidator {
public:
    explicit WorkflowBlockValidator(BlockRegistry registry = BlockRegistry::builtIn());

    // One resolution per step with a block, in step order.
    std::vector<WorkflowBlockResolution>
    validate(const WorkflowDocument& document, const std::filesystem::path& bundleDirectory) const;

private:
    std::optional<WorkflowBlockResolution>
    resolve(const FlowStep& step, const std::filesystem::path& bundleDirectory) const;

    BlockRegistry registry_;
};

} // namespace quorlin
