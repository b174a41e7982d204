#pragma once

#include "core/definitions/WorkflowValue.h"
#include "core/foundation/YamlNode.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace quorlin {

enum class BlockKind { native, script, recipe };
enum class BlockExecutionKind { native, script };
enum class BlockDefinitionSource { bundled, builtin };

std::string_view rawValue(BlockKind kind);
std::string_view rawValue(BlockExecutionKind kind);
std::string_view rawValue(BlockDefinitionSource source);

// How a block runs.
struct BlockExecutionDefinition {
    BlockExecutionKind kind = BlockExecutionKind::native;
    std::optional<std::string> handlerType;
    std::optional<std::string> runtime;
    std::optional<std::string> entrypoint;
    std::optional<double> timeoutSeconds;
    std::optional<WorkflowValueMap> resourceLimits;
    friend bool operator==(const BlockExecutionDefinition&,
                           const BlockExecutionDefinition&) = default;
};

// One declared input or output field of a block.
struct BlockFieldSchema {
    std::string type;
    std::optional<bool> required; // only true makes a field required
    std::optional<std::string> description;
    std::optional<WorkflowValue> items;
    std::optional<std::map<std::string, BlockFieldSchema>> properties;
    std::optional<std::vector<WorkflowValue>> enumValues; // key "enum"
    std::optional<std::string> format;
    std::optional<bool> sensitive;

    bool isRequired() const { return required.value_or(false); }
    friend bool operator==(const BlockFieldSchema&, const BlockFieldSchema&) = default;
};

using BlockFields = std::map<std::string, BlockFieldSchema>;

// A block: what it is called, what it takes and gives, and how it runs. Read from a
// bundle's block.yaml or compiled into the catalogue.
struct BlockDefinition {
    std::string id;
    std::string name;
    std::string version;
    std::optional<std::string> summary;
    BlockKind kind = BlockKind::native;
    std::optional<std::string> handlerType;
    std::optional<BlockExecutionDefinition> execution;
    std::vector<std::string> capabilities;
    std::optional<std::vector<WorkflowValue>> runtimeRequirements;
    BlockFields inputs;
    BlockFields outputs;
    std::optional<WorkflowValueMap> sensitivity;
    std::optional<WorkflowValueMap> audit;
    std::optional<WorkflowValueMap> errors;
    std::vector<std::string> fixtures;

    // The handler type inside execution wins over the top-level one.
    std::optional<std::string> effectiveHandlerType() const;

    friend bool operator==(const BlockDefinition&, const BlockDefinition&) = default;
};

// Throws DecodingError or YamlError.
BlockDefinition decodeBlockDefinition(const YamlNode& root);
BlockDefinition decodeBlockDefinitionYaml(std::string_view text);

// Always writes capabilities, inputs, outputs and fixtures; leaves out absent optionals.
nlohmann::ordered_json toJson(const BlockDefinition& definition);

} // namespace quorlin
