#include "WorkflowBlockValidator.h"

#include "core/definitions/PackagePath.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"

#include <cmath>
#include <cstdio>
#include <system_error>

namespace quorlin {

namespace {

using Kind = WorkflowBlockValidationError::Kind;

std::string describe(Kind kind, const std::string& a, const std::string& b, const std::string& c,
                     const std::string& d) {
    const std::string step = "step " + a + " ";
    switch (kind) {
    case Kind::invalidReference:
        return step + "has an invalid block reference: " + b + " (" + c + ")";
    case Kind::missingBlock:
        return step + "couldn't find block: " + b;
    case Kind::blockIDMismatch:
        return step + "bundled block id mismatch; expected " + b + ", got " + c;
    case Kind::blockVersionMismatch:
        return step + "block " + b + " version mismatch; expected " + c + ", got " + d;
    case Kind::handlerTypeMismatch:
        return step + "block " + b + " handler type mismatch; expected " + c + ", got " + d;
    case Kind::unknownInput:
        return step + "passed an undeclared input to block " + b + ": " + c;
    case Kind::missingRequiredInput:
        return step + "is missing required input for block " + b + ": " + c;
    case Kind::unknownOutput:
        return step + "declares an undefined output for block " + b + ": " + c;
    case Kind::invalidBundledPath:
        return step + "bundled block " + b + " has an invalid path: " + c;
    case Kind::missingBundledPath:
        return step + "bundled block " + b + " couldn't find file: " + c;
    case Kind::invalidBlockManifest:
        return "Invalid block manifest: " + a + " (" + b + ")";
    case Kind::invalidOutputLimit:
        return step + "has max_output_bytes " + b + "; it must be a whole number above 0";
    case Kind::invalidTimeout:
        return step + "has a time-out of " + b + " seconds; it must be a number above 0";
    }
    return a;
}

// A file a bundled block names: it must pass the path rule, exist, and not be a link.
void checkBundledPath(const std::string& written, const FlowStep& step,
                      const BlockDefinition& block, const std::filesystem::path& bundleDirectory) {
    const auto path = validRelativePackagePath(written);
    if (!path) {
        throw WorkflowBlockValidationError(Kind::invalidBundledPath, step.id, block.id, written);
    }
    const auto file = bundleDirectory / *path;
    std::error_code error;
    if (!std::filesystem::exists(file, error)) {
        throw WorkflowBlockValidationError(Kind::missingBundledPath, step.id, block.id, *path);
    }
    // Only the named file itself is tested, not its parent folders.
    if (std::filesystem::is_symlink(std::filesystem::symlink_status(file, error))) {
        throw WorkflowBlockValidationError(Kind::invalidBundledPath, step.id, block.id, *path);
    }
}

void checkBundledFiles(const FlowStep& step, const BlockDefinition& block,
                       const std::filesystem::path& bundleDirectory) {
    if (const auto& execution = block.execution) {
        const auto entrypoint = execution->entrypoint;
        if (execution->kind == BlockExecutionKind::script &&
            (!entrypoint || trimmed(*entrypoint).empty())) {
            throw WorkflowBlockValidationError(Kind::invalidBlockManifest, block.id,
                                               "script block is missing execution.entrypoint");
        }
        if (entrypoint) {
            checkBundledPath(*entrypoint, step, block, bundleDirectory);
        }
    }
    for (const auto& fixture : block.fixtures) {
        checkBundledPath(fixture, step, block, bundleDirectory);
    }
}

void checkHandlerType(const FlowStep& step, const BlockDefinition& block) {
    if (block.handlerType && block.execution && block.execution->handlerType &&
        *block.handlerType != *block.execution->handlerType) {
        throw WorkflowBlockValidationError(Kind::handlerTypeMismatch, step.id, block.id,
                                           *block.handlerType, *block.execution->handlerType);
    }
    // A block that claims no handler (a recipe) does not constrain the step's type.
    if (const auto handler = block.effectiveHandlerType(); handler && *handler != step.type) {
        throw WorkflowBlockValidationError(Kind::handlerTypeMismatch, step.id, block.id, *handler,
                                           step.type);
    }
}

void checkInputsAndOutputs(const FlowStep& step, const BlockDefinition& block) {
    const WorkflowValueMap noInputs;
    const WorkflowValueMap& inputs = step.inputs ? *step.inputs : noInputs;
    for (const auto& [name, value] : inputs) {
        if (!block.inputs.contains(name)) {
            throw WorkflowBlockValidationError(Kind::unknownInput, step.id, block.id, name);
        }
    }
    for (const auto& [name, field] : block.inputs) {
        if (field.isRequired() && !inputs.contains(name)) {
            throw WorkflowBlockValidationError(Kind::missingRequiredInput, step.id, block.id, name);
        }
    }
    for (const auto& output : step.outputs.value_or(std::vector<StepOutputDefinition>{})) {
        if (!block.outputs.contains(output.name)) {
            throw WorkflowBlockValidationError(Kind::unknownOutput, step.id, block.id, output.name);
        }
    }
}

// A time-out must end a script some time: NaN, infinity, zero and negative numbers are
// refused here rather than meeting the script runner.
void checkTimeout(const FlowStep& step, std::optional<double> seconds) {
    if (seconds && !(std::isfinite(*seconds) && *seconds > 0)) {
        char written[32];
        std::snprintf(written, sizeof written, "%g", *seconds);
        throw WorkflowBlockValidationError(Kind::invalidTimeout, step.id, written);
    }
}

// The step's own time-outs; a value that is not a number is passed over at run time too.
void checkStepTimeouts(const FlowStep& step) {
    for (const auto* map : {&step.config, &step.action}) {
        if (*map) {
            if (const auto found = (*map)->find("timeout_seconds"); found != (*map)->end()) {
                checkTimeout(step, found->second.timeIntervalValue());
            }
            if (const auto found = (*map)->find("max_output_bytes"); found != (*map)->end()) {
                const auto* bytes = found->second.integer();
                if (bytes == nullptr || *bytes <= 0) {
                    throw WorkflowBlockValidationError(Kind::invalidOutputLimit, step.id,
                                                       compactJson(toJson(found->second)));
                }
            }
        }
    }
}

void checkDefinition(const FlowStep& step, const BlockReference& reference,
                     const BlockDefinition& block, BlockDefinitionSource source,
                     const std::filesystem::path& bundleDirectory) {
    const std::string own = block.id + "@" + block.version;
    try {
        BlockReference::parse(own);
    } catch (const BlockReferenceError& error) {
        throw WorkflowBlockValidationError(Kind::invalidBlockManifest, own, error.what());
    }
    if (block.id != reference.id) {
        throw WorkflowBlockValidationError(Kind::blockIDMismatch, step.id, reference.id, block.id);
    }
    if (block.version != reference.version) {
        throw WorkflowBlockValidationError(Kind::blockVersionMismatch, step.id, block.id,
                                           reference.version, block.version);
    }
    checkHandlerType(step, block);
    checkInputsAndOutputs(step, block);
    if (block.execution) {
        checkTimeout(step, block.execution->timeoutSeconds);
    }
    if (source == BlockDefinitionSource::bundled) {
        checkBundledFiles(step, block, bundleDirectory);
    }
}

} // namespace

WorkflowBlockValidationError::WorkflowBlockValidationError(Kind kind, const std::string& first,
                                                           const std::string& second,
                                                           const std::string& third,
                                                           const std::string& fourth)
    : Error(describe(kind, first, second, third, fourth)), kind_(kind) {}

WorkflowBlockValidator::WorkflowBlockValidator(BlockRegistry registry)
    : registry_(std::move(registry)) {}

std::vector<WorkflowBlockResolution>
WorkflowBlockValidator::validate(const WorkflowDocument& document,
                                 const std::filesystem::path& bundleDirectory) const {
    std::vector<WorkflowBlockResolution> resolutions;
    for (const auto& step : document.flow.steps) {
        checkStepTimeouts(step);
        if (auto resolution = resolve(step, bundleDirectory)) {
            resolutions.push_back(std::move(*resolution));
        }
    }
    return resolutions;
}

std::optional<WorkflowBlockResolution>
WorkflowBlockValidator::resolve(const FlowStep& step,
                                const std::filesystem::path& bundleDirectory) const {
    if (!step.block) {
        return std::nullopt; // its type alone decides what runs
    }
    BlockReference reference;
    try {
        reference = BlockReference::parse(*step.block);
    } catch (const BlockReferenceError& error) {
        throw WorkflowBlockValidationError(Kind::invalidReference, step.id, *step.block,
                                           error.what());
    }
    // A bundle's own manifest wins over a built-in block of the same id.
    const auto manifest = bundleDirectory / "blocks" / reference.id / "block.yaml";
    std::error_code error;
    if (std::filesystem::exists(manifest, error)) {
        BlockDefinition definition;
        try {
            definition = decodeBlockDefinitionYaml(readFile(manifest));
        } catch (const std::exception& failure) {
            throw WorkflowBlockValidationError(Kind::invalidBlockManifest, manifest.string(),
                                               failure.what());
        }
        checkDefinition(step, reference, definition, BlockDefinitionSource::bundled,
                        bundleDirectory);
        return WorkflowBlockResolution{step.id, reference, std::move(definition),
                                       BlockDefinitionSource::bundled, manifest};
    }
    if (auto definition = registry_.definition(reference)) {
        checkDefinition(step, reference, *definition, BlockDefinitionSource::builtin,
                        bundleDirectory);
        return WorkflowBlockResolution{step.id, reference, std::move(*definition),
                                       BlockDefinitionSource::builtin, std::nullopt};
    }
    const auto versions = registry_.definitions(reference.id);
    if (versions.empty()) {
        throw WorkflowBlockValidationError(Kind::missingBlock, step.id, *step.block);
    }
    throw WorkflowBlockValidationError(Kind::blockVersionMismatch, step.id, reference.id,
                                       reference.version, versions.front().version);
}

} // namespace quorlin
