#include "BlockDefinition.h"

#include "core/definitions/RecordDecoding.h"

namespace quorlin {

namespace {

template <typename Enum, std::size_t Count>
Enum enumFrom(const Fields& fields, std::string_view key, const Enum (&cases)[Count],
              const char* expected) {
    const YamlNode& node = fields.required(key);
    const std::string text = scalarText(node, fields.path(key));
    for (const Enum value : cases) {
        if (rawValue(value) == text) {
            return value;
        }
    }
    throwTypeMismatch(node, fields.path(key), expected);
}

BlockExecutionDefinition decodeExecution(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    static const BlockExecutionKind kinds[] = {BlockExecutionKind::native,
                                               BlockExecutionKind::script};
    return {enumFrom(fields, "kind", kinds, "\"native\" or \"script\""),
            fields.optionalText("handler_type"),
            fields.optionalText("runtime"),
            fields.optionalText("entrypoint"),
            fields.optionalDouble("timeout_seconds"),
            fields.optionalValueMap("resource_limits")};
}

std::vector<WorkflowValue> decodeValueList(const YamlNode& node, const std::string& path) {
    return sequenceOf(node, path, [](const YamlNode& item, const std::string&) {
        return workflowValueFromYaml(item);
    });
}

BlockFields decodeFields(const YamlNode& node, const std::string& path);

BlockFieldSchema decodeFieldSchema(const YamlNode& node, const std::string& path) {
    const Fields fields(node, path);
    BlockFieldSchema schema;
    schema.type = fields.requiredText("type");
    schema.required = fields.optionalBool("required");
    schema.description = fields.optionalText("description");
    if (const auto* items = fields.optional("items")) {
        schema.items = workflowValueFromYaml(*items);
    }
    schema.properties = fields.optionalRecord("properties", decodeFields);
    schema.enumValues = fields.optionalRecord("enum", decodeValueList);
    schema.format = fields.optionalText("format");
    schema.sensitive = fields.optionalBool("sensitive");
    return schema;
}

BlockFields decodeFields(const YamlNode& node, const std::string& path) {
    if (!node.isMapping()) {
        throwTypeMismatch(node, path, "a mapping");
    }
    BlockFields result;
    for (const auto& [name, value] : node.entries) {
        result.insert_or_assign(name, decodeFieldSchema(value, keyPath(path, name)));
    }
    return result;
}

nlohmann::ordered_json orderedFrom(const nlohmann::json& json) {
    return nlohmann::ordered_json::parse(json.dump());
}

nlohmann::ordered_json toJson(const BlockFields& fields);

nlohmann::ordered_json toJson(const BlockFieldSchema& schema) {
    nlohmann::ordered_json json;
    json["type"] = schema.type;
    if (schema.required)
        json["required"] = *schema.required;
    if (schema.description)
        json["description"] = *schema.description;
    if (schema.items)
        json["items"] = orderedFrom(quorlin::toJson(*schema.items));
    if (schema.properties)
        json["properties"] = toJson(*schema.properties);
    if (schema.enumValues) {
        json["enum"] =
            orderedFrom(quorlin::toJson(WorkflowValue(WorkflowValue::Array(*schema.enumValues))));
    }
    if (schema.format)
        json["format"] = *schema.format;
    if (schema.sensitive)
        json["sensitive"] = *schema.sensitive;
    return json;
}

nlohmann::ordered_json toJson(const BlockFields& fields) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (const auto& [name, schema] : fields) {
        json[name] = toJson(schema);
    }
    return json;
}

} // namespace

std::string_view rawValue(BlockKind kind) {
    switch (kind) {
    case BlockKind::native:
        return "native";
    case BlockKind::script:
        return "script";
    case BlockKind::recipe:
        return "recipe";
    }
    return {};
}

std::string_view rawValue(BlockExecutionKind kind) {
    return kind == BlockExecutionKind::native ? "native" : "script";
}

std::string_view rawValue(BlockDefinitionSource source) {
    return source == BlockDefinitionSource::bundled ? "bundled" : "builtin";
}

std::optional<std::string> BlockDefinition::effectiveHandlerType() const {
    if (execution && execution->handlerType) {
        return execution->handlerType;
    }
    return handlerType;
}

BlockDefinition decodeBlockDefinition(const YamlNode& root) {
    const Fields fields(root, "");
    static const BlockKind kinds[] = {BlockKind::native, BlockKind::script, BlockKind::recipe};
    BlockDefinition definition;
    definition.id = fields.requiredText("id");
    definition.name = fields.requiredText("name");
    definition.version = fields.requiredText("version");
    definition.summary = fields.optionalText("summary");
    definition.kind = enumFrom(fields, "kind", kinds, "\"native\", \"script\" or \"recipe\"");
    definition.handlerType = fields.optionalText("handler_type");
    definition.execution = fields.optionalRecord("execution", decodeExecution);
    definition.capabilities =
        fields.optionalTextList("capabilities").value_or(std::vector<std::string>{});
    definition.runtimeRequirements = fields.optionalRecord("runtime_requirements", decodeValueList);
    definition.inputs = fields.optionalRecord("inputs", decodeFields).value_or(BlockFields{});
    definition.outputs = fields.optionalRecord("outputs", decodeFields).value_or(BlockFields{});
    definition.sensitivity = fields.optionalValueMap("sensitivity");
    definition.audit = fields.optionalValueMap("audit");
    definition.errors = fields.optionalValueMap("errors");
    definition.fixtures = fields.optionalTextList("fixtures").value_or(std::vector<std::string>{});
    return definition;
}

BlockDefinition decodeBlockDefinitionYaml(std::string_view text) {
    return decodeBlockDefinition(parseYaml(text));
}

nlohmann::ordered_json toJson(const BlockDefinition& definition) {
    nlohmann::ordered_json json;
    json["id"] = definition.id;
    json["name"] = definition.name;
    json["version"] = definition.version;
    if (definition.summary)
        json["summary"] = *definition.summary;
    json["kind"] = rawValue(definition.kind);
    if (definition.handlerType)
        json["handler_type"] = *definition.handlerType;
    if (const auto& execution = definition.execution) {
        nlohmann::ordered_json run;
        run["kind"] = rawValue(execution->kind);
        if (execution->handlerType)
            run["handler_type"] = *execution->handlerType;
        if (execution->runtime)
            run["runtime"] = *execution->runtime;
        if (execution->entrypoint)
            run["entrypoint"] = *execution->entrypoint;
        if (execution->timeoutSeconds)
            run["timeout_seconds"] = *execution->timeoutSeconds;
        if (execution->resourceLimits)
            run["resource_limits"] = orderedFrom(quorlin::toJson(*execution->resourceLimits));
        json["execution"] = std::move(run);
    }
    json["capabilities"] = definition.capabilities;
    if (definition.runtimeRequirements) {
        json["runtime_requirements"] = orderedFrom(
            quorlin::toJson(WorkflowValue(WorkflowValue::Array(*definition.runtimeRequirements))));
    }
    json["inputs"] = toJson(definition.inputs);
    json["outputs"] = toJson(definition.outputs);
    if (definition.sensitivity)
        json["sensitivity"] = orderedFrom(quorlin::toJson(*definition.sensitivity));
    if (definition.audit)
        json["audit"] = orderedFrom(quorlin::toJson(*definition.audit));
    if (definition.errors)
        json["errors"] = orderedFrom(quorlin::toJson(*definition.errors));
    json["fixtures"] = definition.fixtures;
    return json;
}

} // namespace quorlin
