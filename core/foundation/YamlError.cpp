#include "YamlError.h"

#include "core/foundation/YamlNode.h"

namespace quorlin {

namespace {

std::string composeMessage(YamlError::Kind kind, const std::string& detail) {
    switch (kind) {
    case YamlError::Kind::syntax:
        return detail;
    case YamlError::Kind::multipleDocuments:
        return "expected a single document in the stream";
    case YamlError::Kind::undefinedAlias:
        return "found undefined alias";
    case YamlError::Kind::duplicateKey:
        return "Duplicate values for key: '" + detail + "'";
    case YamlError::Kind::unsupportedKey:
        return "a mapping key must be a scalar, found a " + detail;
    case YamlError::Kind::invalidMerge:
        return "the merge key '<<' needs a mapping or a sequence of mappings, found a " + detail;
    case YamlError::Kind::tooDeep:
        return "sequences and mappings nest deeper than " + std::to_string(yamlMaxDepth) +
               " levels";
    case YamlError::Kind::tooManyAliasNodes:
        return "anchors and aliases expand to more than " + std::to_string(yamlMaxAliasNodes) +
               " nodes";
    }
    return detail;
}

} // namespace

YamlError::YamlError(Kind kind, std::string detail, YamlMark mark)
    : Error(withYamlMark(composeMessage(kind, detail), mark)), kind_(kind), detail_(std::move(detail)),
      mark_(mark) {}

} // namespace quorlin
