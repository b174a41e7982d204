#include "cli/Commands.h"
#include "core/foundation/FileError.h"

#include <cstring>
#include <iostream>
#include <map>

namespace {

constexpr const char* usage = R"(Usage: quorlin <command> [arguments]

Commands:
  run <flow-id> [--input-file <path>] [--folder <setting>=<path>]...
                                   Run a workflow and print its progress and result.
  inspect <flow.yaml | bundle dir> Print a workflow document as it is read, as JSON.
  install <file.quorlinflow>       Install a workflow plugin package and make it active.
  uninstall <flow-id>              Remove every installed version of a workflow.
  pack <bundle dir> [-o <file>]    Make a plugin package from a workflow bundle.
  profile [--path]                 Print the client profile as saved, creating it from the
                                   default when missing; --path prints where it lives.
  flows                            List the available workflows and whether each loads.
  validate <bundle dir>            Load one bundle, check its blocks, print ok or the error.
  history [--flow <id>] [--status <word>] [--limit N] [--json | --csv]
                                   List past runs, newest first.
  history show <run-id> [--json]   Print one run with its step timings and records.

Options:
  -h, --help       Show this help.
  -V, --version    Show the version.

Data lives in $QUORLIN_APP_SUPPORT_ROOT, else $XDG_DATA_HOME/Quorlin,
else ~/.local/share/Quorlin.
)";

} // namespace

int main(int argc, char** argv) {
    using namespace quorlin::cli;
    const Arguments words(argv + 1, argv + argc);
    if (words.empty() || words[0] == "-h" || words[0] == "--help" || words[0] == "help") {
        std::cout << usage;
        return words.empty() ? 2 : 0;
    }
    if (words[0] == "-V" || words[0] == "--version") {
        std::cout << "quorlin " << QUORLIN_VERSION << '\n';
        return 0;
    }
    const std::map<std::string, int (*)(const Arguments&)> commands{
        {"inspect", inspectCommand},     {"run", runCommand},           {"install", installCommand},
        {"uninstall", uninstallCommand}, {"pack", packCommand},         {"profile", profileCommand},
        {"flows", flowsCommand},         {"validate", validateCommand}, {"history", historyCommand},
    };
    const auto command = commands.find(words[0]);
    if (command == commands.end()) {
        return fail("unknown command '" + words[0] + "'. Run 'quorlin --help' for the list.");
    }
    try {
        return command->second(Arguments(words.begin() + 1, words.end()));
    } catch (const std::filesystem::filesystem_error& error) {
        return fail(quorlin::describeFilesystemError(error));
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
