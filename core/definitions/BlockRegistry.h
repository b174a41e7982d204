#pragma once

#include "core/definitions/BlockDefinition.h"
#include "core/definitions/BlockReference.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace quorlin {

// Block definitions by id and exact version. An immutable value: registering gives a
// changed copy.
class BlockRegistry {
public:
    BlockRegistry() = default;
    // Later definitions of the same id and version replace earlier ones.
    explicit BlockRegistry(const std::vector<BlockDefinition>& definitions);

    // The catalogue of native blocks compiled into the program.
    static const BlockRegistry& builtIn();

    BlockRegistry registering(const BlockDefinition& definition) const;

    // Exactly that id and version; there is no range or "latest".
    std::optional<BlockDefinition> definition(const BlockReference& reference) const;
    // Every version of an id, in plain text order of the version ("0.10.0" < "0.9.0").
    std::vector<BlockDefinition> definitions(const std::string& id) const;

private:
    std::map<std::string, std::map<std::string, BlockDefinition>> definitionsByID_;
};

// The native blocks, in their catalogue order.
const std::vector<BlockDefinition>& builtInBlockDefinitions();

} // namespace quorlin
