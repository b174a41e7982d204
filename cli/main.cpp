#include "cli/Commands.h"
#include "core/foundation/FileError.h"

#include <iostream>

namespace {

using namespace quorlin::cli;

int usageFailure(const UsageError& error) {
    fail(error.what());
    std::cerr << (error.command().empty()
                      ? std::string("Run 'quorlin --help' for the list of commands.")
                      : "Run 'quorlin help " + error.command() + "' for its usage.")
              << '\n';
    return exitStatus::usage;
}

int dispatch(const Arguments& words) {
    if (words.empty()) {
        std::cerr << overviewHelp();
        return exitStatus::usage;
    }
    if (words[0] == "-h" || words[0] == "--help") {
        std::cout << overviewHelp();
        return exitStatus::success;
    }
    if (words[0] == "-V" || words[0] == "--version") {
        std::cout << "quorlin " << QUORLIN_VERSION << '\n';
        return exitStatus::success;
    }
    const auto [command, rest] = findCommand(words);
    for (const auto& word : rest) {
        if (word == "--") {
            break;
        }
        if (word == "-h" || word == "--help") {
            std::cout << command->helpText();
            return exitStatus::success;
        }
    }
    return command->run(parseArguments(*command, rest));
}

} // namespace

int main(int argc, char** argv) {
    try {
        return dispatch(Arguments(argv + 1, argv + argc));
    } catch (const UsageError& error) {
        return usageFailure(error);
    } catch (const std::filesystem::filesystem_error& error) {
        return fail(quorlin::describeFilesystemError(error));
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
