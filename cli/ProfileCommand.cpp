#include "cli/Commands.h"
#include "core/definitions/AppSupportPaths.h"
#include "core/definitions/ClientProfileStore.h"
#include "core/definitions/DecodingError.h"
#include "core/definitions/QuorlinResources.h"
#include "core/foundation/YamlNode.h"

#include <iostream>

namespace quorlin::cli {

// Prints the client profile as the engine reads it, in the form a save writes it, so a
// user sees what every key resolved to ("default_provider" shows as "default").
int profileCommand(const ParsedArguments& arguments) {
    const ClientProfileStore store(AppSupportPaths::fromEnvironment());
    if (arguments.has("--path")) {
        std::cout << store.profilePath().string() << '\n';
        return 0;
    }
    try {
        const auto document = store.loadOrCreateDefault(QuorlinResources::installed());
        std::cout << encodeClientProfileDocumentYaml(document);
        return 0;
    } catch (const YamlError& error) {
        return fail(store.profilePath().string() + ": " + error.what());
    } catch (const DecodingError& error) {
        return fail(store.profilePath().string() + ": " + error.what());
    }
}

} // namespace quorlin::cli
