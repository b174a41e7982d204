#include "BlockRegistry.h"

namespace quorlin {

BlockRegistry::BlockRegistry(const std::vector<BlockDefinition>& definitions) {
    for (const auto& definition : definitions) {
        definitionsByID_[definition.id].insert_or_assign(definition.version, definition);
    }
}

const BlockRegistry& BlockRegistry::builtIn() {
    static const BlockRegistry registry(builtInBlockDefinitions());
    return registry;
}

BlockRegistry BlockRegistry::registering(const BlockDefinition& definition) const {
    BlockRegistry copy = *this;
    copy.definitionsByID_[definition.id].insert_or_assign(definition.version, definition);
    return copy;
}

std::optional<BlockDefinition> BlockRegistry::definition(const BlockReference& reference) const {
    const auto versions = definitionsByID_.find(reference.id);
    if (versions == definitionsByID_.end()) {
        return std::nullopt;
    }
    const auto found = versions->second.find(reference.version);
    if (found == versions->second.end()) {
        return std::nullopt;
    }
    return found->second;
}

std::vector<BlockDefinition> BlockRegistry::definitions(const std::string& id) const {
    std::vector<BlockDefinition> result;
    if (const auto versions = definitionsByID_.find(id); versions != definitionsByID_.end()) {
        // The inner map is ordered by the version text, which is the order wanted.
        for (const auto& [version, definition] : versions->second) {
            result.push_back(definition);
        }
    }
    return result;
}

} // namespace quorlin
