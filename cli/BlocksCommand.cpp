#include "cli/Commands.h"
#include "core/definitions/BlockRegistry.h"

#include <algorithm>
#include <iostream>

namespace quorlin::cli {

namespace {

std::string fieldList(const BlockFields& fields) {
    std::string text;
    for (const auto& [name, schema] : fields) {
        text += "  " + name + " (" + schema.type + (schema.isRequired() ? ", required" : "") + ")";
        if (schema.description) {
            text += ": " + *schema.description;
        }
        text += "\n";
    }
    return text.empty() ? "  none\n" : text;
}

void printBlock(const BlockDefinition& block) {
    std::cout << block.name << " (" << block.id << " " << block.version << ")\n";
    if (block.summary) {
        std::cout << *block.summary << '\n';
    }
    std::cout << "\nKind:    " << rawValue(block.kind) << '\n'
              << "Handler: " << block.effectiveHandlerType().value_or("-") << '\n';
    if (!block.capabilities.empty()) {
        std::string capabilities;
        for (const auto& capability : block.capabilities) {
            capabilities += (capabilities.empty() ? "" : ", ") + capability;
        }
        std::cout << "Needs:   " << capabilities << '\n';
    }
    std::cout << "\nInputs\n"
              << fieldList(block.inputs) << "\nOutputs\n"
              << fieldList(block.outputs) << "\nIn a flow: block: " << block.id << "@"
              << block.version << '\n';
}

void printCatalogue(const std::vector<BlockDefinition>& blocks) {
    std::size_t width = 2;
    for (const auto& block : blocks) {
        width = std::max(width, block.id.size() + 1 + block.version.size());
    }
    std::cout << "BLOCK" << std::string(width - 3, ' ') << "SUMMARY\n";
    for (const auto& block : blocks) {
        const auto name = block.id + "@" + block.version;
        std::cout << name << std::string(width - name.size() + 2, ' ')
                  << block.summary.value_or(block.name) << '\n';
    }
    std::cout << "\n'quorlin blocks <id>' shows a block's inputs and outputs.\n";
}

} // namespace

// The built-in catalogue, or one block of it with its inputs and outputs.
int blocksCommand(const ParsedArguments& arguments) {
    const auto& catalogue = builtInBlockDefinitions();
    std::vector<BlockDefinition> chosen;
    if (arguments.operands.empty()) {
        chosen = catalogue;
    } else {
        // "id" or "id@version"
        const auto& word = arguments.operands[0];
        const auto at = word.find('@');
        const auto id = word.substr(0, at);
        std::vector<std::string> ids;
        for (const auto& block : catalogue) {
            ids.push_back(block.id);
            if (block.id == id &&
                (at == std::string::npos || block.version == word.substr(at + 1))) {
                chosen.push_back(block);
            }
        }
        if (chosen.empty()) {
            throw UsageError(unknownWordMessage("block", word, ids), "blocks");
        }
    }
    if (arguments.has("--json")) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& block : chosen) {
            list.push_back(toJson(block));
        }
        std::cout << list.dump(2) << '\n';
    } else if (arguments.operands.empty()) {
        printCatalogue(chosen);
    } else {
        for (std::size_t index = 0; index < chosen.size(); ++index) {
            std::cout << (index == 0 ? "" : "\n");
            printBlock(chosen[index]);
        }
    }
    return exitStatus::success;
}

} // namespace quorlin::cli
