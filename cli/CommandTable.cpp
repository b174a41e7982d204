#include "cli/Commands.h"
#include "cli/CronCommand.h"
#include "cli/DepsCommand.h"
#include "cli/LocalLLMCommand.h"
#include "cli/LibraryCommands.h"
#include "cli/RuntimesCommand.h"
#include "cli/ScheduleCommands.h"
#include "cli/SchedulerCommand.h"

namespace quorlin::cli {

namespace {

std::vector<CommandSpec> makeTable() {
    const OptionSpec json{"--json", "", "", "Print JSON for scripts, and nothing else.", {}};
    const OptionSpec strict{"--strict", "", "", "Treat warnings as errors.", {}};
    return {
        {"run",
         "<flow-id | bundle dir>",
         "Run a workflow, showing each step, then its result.",
         "A folder holding a flow.yaml runs in place, recorded under its flow id, with\n"
         "no need to pack and install it first. Progress goes to stderr, the result to\n"
         "stdout.\n"
         "\n"
         "Exit status: 0 the run succeeded, 1 it failed, 2 the command line is wrong,\n"
         "3 the run waits at its approval gate and there was no terminal to ask on\n"
         "(answer with --approve), 130 interrupted.",
         {{"--input-file", "", "<path>", "Hand a file to the flow's first file setting.", {}},
          {"--folder",
           "",
           "<key>=<path>",
           "Use this folder for a folder setting, this run only.",
           {},
           true},
          {"--approve",
           "",
           "<answer>",
           "Answer the approval gate without asking.",
           {"all", "none"}},
          json,
          {"--quiet", "-q", "", "Print only the result.", {}},
          {"--verbose", "-v", "", "Show what each script writes to stderr as it runs.", {}}},
         1,
         1,
         "flows",
         runCommand},
        {"flows",
         "",
         "List the available workflows and whether each loads.",
         "Problems that would only show when a flow runs are listed as warnings below\n"
         "the table.",
         {strict, {"--ids", "", "", "Print only the flow ids, one per line.", {}}},
         0,
         0,
         "",
         flowsCommand},
        {"validate",
         "<flow.yaml | bundle dir>",
         "Check a workflow the way a run would load it.",
         "Prints \"ok\" and the block each step resolved to, then warnings about what\n"
         "would fail at run time. A document that doesn't load is an error (exit 1).",
         {strict},
         1,
         1,
         "files",
         validateCommand},
        {"inspect",
         "<flow.yaml | bundle dir>",
         "Print a workflow document as it is read, as JSON.",
         "",
         {},
         1,
         1,
         "files",
         inspectCommand},
        {"blocks",
         "[block-id]",
         "List the built-in blocks a flow may use, or show one.",
         "",
         {json},
         0,
         1,
         "",
         blocksCommand},
        {"history",
         "",
         "List past runs, newest first.",
         "Dates are local: --since 2024-05-01 starts at that midnight, --until\n"
         "2024-05-31 includes that day. \"7d\" means the last seven days (also h, w).",
         {{"--flow", "", "<id>", "Only this workflow's runs.", {}},
          {"--status",
           "",
           "<status>",
           "Only runs that ended so.",
           {"success", "failed", "rejected"}},
          {"--failed", "", "", "Only failed runs.", {}},
          {"--since", "", "<date>", "Runs from this date or time span on.", {}},
          {"--until", "", "<date>", "Runs up to this date, the day included.", {}},
          {"--search", "", "<text>", "Runs whose summary, flow or step errors hold this text.", {}},
          {"--limit", "", "<count>", "At most this many runs (default 50).", {}},
          {"--offset", "", "<count>", "Skip this many of the newest matches first.", {}},
          {"--totals", "", "", "Print the totals of the matching runs, by flow and month.", {}},
          json,
          {"--csv", "", "", "Print CSV.", {}}},
         0,
         0,
         "",
         historyCommand},
        {"history show",
         "<run-id>",
         "Print one run with its steps; the first characters of the id are enough.",
         "",
         {json},
         1,
         1,
         "",
         historyShowCommand},
        {"install",
         "<file.quorlinflow>",
         "Install a workflow plugin package and make it active.",
         "",
         {},
         1,
         1,
         "files",
         installCommand},
        {"uninstall",
         "<flow-id>",
         "Remove every installed version of a workflow.",
         "",
         {},
         1,
         1,
         "flows",
         uninstallCommand},
        {"pack",
         "<bundle dir>",
         "Make a plugin package from a workflow bundle.",
         "",
         {{"--output", "-o", "<file>", "Write the package here.", {}}},
         1,
         1,
         "dirs",
         packCommand},
        {"runtimes status",
         "",
         "Show which Python and Node interpreters scripts run on, in the order tried.",
         "Scripts run on the Quorlin-managed build under the data root when it is\n"
         "installed (quorlin runtimes install), else on the launcher installed beside\n"
         "quorlin (quorlin-python, quorlin-node), which runs the system's interpreter.",
         {json},
         0,
         0,
         "",
         runtimesStatusCommand},
        {"runtimes install",
         "<python | node>",
         "Download and install the Quorlin-managed Python or Node build.",
         "The archive is checked against the publisher's SHA-256 list (or the checksum a\n"
         "catalogue file gives, see QUORLIN_RUNTIME_CATALOG) before it is unpacked, and\n"
         "only a complete, verified build is put in place: a failed or interrupted\n"
         "install leaves the managed runtimes as they were. Progress goes to stderr.\n"
         "\n"
         "Exit status: 0 installed or already there, 1 the install failed, 2 the command\n"
         "line is wrong, 130 interrupted.",
         {},
         1,
         1,
         "python node",
         runtimesInstallCommand},
        {"deps status",
         "<flow-id>",
         "Show whether a workflow's Python and Node packages are installed and current.",
         "For each runtime: the manifest the flow ships (scripts/requirements.txt,\n"
         "scripts/package.json and a package-lock.json beside it), whether its packages\n"
         "are installed and match it byte for byte, the folder they go to, and what would\n"
         "install them.",
         {json},
         1,
         1,
         "flows",
         depsStatusCommand},
        {"deps install",
         "<flow-id>",
         "Install the Python and Node packages a workflow's scripts need.",
         "Python packages come from the flow's scripts/requirements.txt (pip install\n"
         "--target; --require-hashes when it pins hashes), Node packages from\n"
         "scripts/package.json (npm install, or npm ci when a package-lock.json lies\n"
         "beside it), each flow into a folder of its own under script-dependencies/ in the\n"
         "data root. pip and npm come from the Quorlin-managed runtime when it is\n"
         "installed, else from the system; their own settings apply (PIP_INDEX_URL,\n"
         "PIP_FIND_LINKS, npm_config_registry, ...). Packages that match their manifest\n"
         "are not installed again. A run installs what it needs by itself; this does it\n"
         "ahead of time. An install is all or nothing: after a failure or Ctrl-C the\n"
         "folder is as it was. pip's and npm's lines go to stderr, the log to stdout.\n"
         "\n"
         "Exit status: 0 installed or already current, 1 an install failed, 2 the command\n"
         "line is wrong, 130 interrupted.",
         {},
         1,
         1,
         "flows",
         depsInstallCommand},
        {"profile",
         "",
         "Print the client profile, creating it from the default when missing.",
         "",
         {{"--path", "", "", "Print only where the profile lives.", {}}},
         0,
         0,
         "",
         profileCommand},
        {"settings",
         "",
         "Print the application settings, with keys and tokens masked.",
         "",
         {{"--json", "", "", "Print JSON for scripts, and nothing else.", {}}},
         0,
         0,
         "",
         settingsCommand},
        {"settings set",
         "<key> <value>",
         "Change one setting: its key, or a dotted path such as googleAccount.clientID.",
         "A value of - is read from standard input, so that a key never stands in the\n"
         "shell's history: quorlin settings set anthropicAPIKey - < key.txt",
         {},
         2,
         2,
         "",
         settingsSetCommand},
        {"llm check",
         "",
         "Check that the Anthropic key works and that Ollama answers.",
         "Exit status 0 when at least one of them can be used. The Anthropic address is\n"
         "$QUORLIN_ANTHROPIC_BASE_URL when set; Ollama's is the ollamaURL setting.",
         {{"--json", "", "", "Print JSON for scripts, and nothing else.", {}}},
         0,
         0,
         "",
         llmCheckCommand},
        {"schedule list",
         "",
         "List each flow's schedule: its expression, what it means and its next run.",
         "A flow runs by the expression you set (quorlin schedule <flow-id> --cron), else\n"
         "by its own schedule trigger; a flow with neither runs only by hand. The desktop\n"
         "app and quorlin scheduler fire the schedules.",
         {json},
         0,
         0,
         "",
         scheduleListCommand},
        {"schedule",
         "<flow-id>",
         "Show or change one flow's schedule.",
         "--cron sets your own expression and switches the schedule on; --disable and\n"
         "--enable switch it off and on, keeping the expression; --clear goes back to\n"
         "the flow's own schedule. The change is saved in the library preferences.\n"
         "\n"
         "Exit status: 0 the schedule is usable (or off), 1 it is on with no expression\n"
         "to run by, 2 the command line or the expression is wrong.",
         {{"--cron", "", "<expression>", "Run by this five-field expression.", {}},
          {"--enable", "", "", "Switch the schedule on.", {}},
          {"--disable", "", "", "Switch the schedule off, keeping its expression.", {}},
          {"--clear", "", "", "Forget your settings; the flow's own schedule applies.", {}},
          json},
         1,
         1,
         "flows",
         scheduleCommand},
        {"scheduler",
         "",
         "Fire the flows' schedules in the foreground until stopped.",
         "Checks every 30 seconds which flows' schedules match the current minute and runs\n"
         "them, each at most once a minute and never beside a run of its own still going;\n"
         "minutes the computer slept through are not made up. A line on stderr for each\n"
         "firing and each result. SIGTERM or Ctrl-C stops it cleanly: a run still going\n"
         "is cancelled (its row says so) and named in the last line. One scheduler per\n"
         "data root: a second refuses to start and names the first one's process.\n"
         "\n"
         "--install writes a systemd user service that runs it with your session (with\n"
         "this quorlin and this data root) and starts it; --uninstall stops and removes it.",
         {{"--install", "", "", "Run the scheduler as a systemd user service, from now on.", {}},
          {"--uninstall", "", "", "Stop and remove that service.", {}}},
         0,
         0,
         "",
         schedulerCommand},
        {"cron",
         "\"<expression>\"",
         "Check a cron schedule and list its next runs in local time.",
         "Five fields, quoted as one word: minute (0-59), hour (0-23), day of the month\n"
         "(1-31), month (1-12) and weekday (0-7; 0 and 7 are Sunday). A field is *, a\n"
         "number, a range such as 1-5 or a list such as 1,15, each optionally with a\n"
         "step: */15. The day of the month and the weekday must both match: \"0 8 13 * 5\"\n"
         "runs only on a Friday the 13th. Each run is looked for within 366 days of the\n"
         "one before; \"Unable to compute\" ends the list where none falls.\n"
         "\n"
         "Exit status: 0 the expression is valid, 2 it or an option is not.",
         {{"--after",
           "",
           "<date>",
           "List the runs after this local time (\"2024-05-01 09:00\"); default now.",
           {}},
          {"--count", "", "<count>", "List this many runs (default 5, at most 1000).", {}},
          json},
         1,
         1,
         "",
         cronCommand},
        {"folders",
         "",
         "List the library's folders with their flows, then the flows in no folder.",
         "The arrangement is the one the desktop app shows: a flow stands in the first\n"
         "folder that lists it, and a flow new to the library in no folder.",
         {json},
         0,
         0,
         "",
         foldersCommand},
        {"reset",
         "",
         "Delete everything Quorlin keeps on this computer, after asking.",
         "Removes the whole data root: settings, history, installed workflows, managed\n"
         "runtimes and models. The next start recreates the defaults. Lists what it\n"
         "deleted.\n"
         "\n"
         "Exit status: 0 deleted (or nothing to delete), 1 not confirmed, 2 no one to\n"
         "answer and no --yes.",
         {{"--yes", "-y", "", "Don't ask.", {}}},
         0,
         0,
         "",
         resetCommand},
        {"local-llm status",
         "",
         "Show where Ollama is, whether its server runs and who started it.",
         "The server address and the model are the ollamaURL and localLLMModel settings.\n"
         "A server Quorlin started shows its process id; one that answers without it was\n"
         "started outside Quorlin (a system service, or someone's own ollama serve).\n"
         "ollama is looked for on PATH, in /usr/local/bin and /usr/bin, then as the copy\n"
         "Quorlin downloads under the data root (managed-runtimes/ollama).",
         {json},
         0,
         0,
         "",
         localLLMStatusCommand},
        {"local-llm setup",
         "",
         "Install Ollama if needed, start its server and pull the chosen model.",
         "Downloads Ollama for Linux under the data root when no ollama is found and no\n"
         "server answers (checked against the release's sha256sum.txt; see\n"
         "QUORLIN_OLLAMA_DOWNLOAD_URL), starts the server as quorlin local-llm start does,\n"
         "then pulls the localLLMModel setting. Progress goes to stderr, the log to stdout;\n"
         "Ctrl-C leaves nothing half installed.\n"
         "\n"
         "Exit status: 0 ready, 1 a step failed, 130 interrupted.",
         {},
         0,
         0,
         "",
         localLLMSetupCommand},
        {"local-llm start",
         "",
         "Start the Ollama server in the background, unless one answers already.",
         "Runs ollama serve in a session of its own, with OLLAMA_HOST from the ollamaURL\n"
         "setting and its models in local-llm/models under the data root; its output goes\n"
         "to local-llm/ollama-serve.log and its process id to local-llm/ollama-serve.pid.\n"
         "A server that is still starting after five seconds is left to finish.\n"
         "\n"
         "Exit status: 0 running or starting, 1 it could not start, 130 interrupted (the\n"
         "server it launched is stopped again).",
         {},
         0,
         0,
         "",
         localLLMStartCommand},
        {"local-llm stop",
         "",
         "Stop the Ollama server Quorlin started.",
         "Only the process recorded by quorlin local-llm start is stopped (SIGTERM, then\n"
         "SIGKILL after five seconds). A server started outside Quorlin is left running,\n"
         "and the log says so.",
         {},
         0,
         0,
         "",
         localLLMStopCommand},
        {"local-llm pull",
         "<model>",
         "Have the running Ollama server download a model, such as qwen2.5:7b.",
         "Progress goes to stderr: the server's steps and the bytes of each layer. The\n"
         "server must be running (quorlin local-llm start).\n"
         "\n"
         "Exit status: 0 pulled, 1 the server refused or failed, 2 the command line is\n"
         "wrong, 130 interrupted.",
         {},
         1,
         1,
         localLLMModelCompletion(),
         localLLMPullCommand},
        {"completion",
         "<shell>",
         "Print the completion script for bash or zsh.",
         "Try it with: source <(quorlin completion bash)",
         {},
         1,
         1,
         "bash zsh",
         completionCommand},
        {"help",
         "[command]",
         "Show the help of quorlin or of one command.",
         "",
         {},
         0,
         2,
         "",
         helpCommand},
    };
}

} // namespace

const std::vector<CommandSpec>& commandTable() {
    static const std::vector<CommandSpec> table = [] {
        auto commands = makeTable();
        auto& help = commands.back();
        for (const auto& command : commands) {
            if (command.name.find(' ') == std::string::npos) {
                help.operandCompletion +=
                    (help.operandCompletion.empty() ? "" : " ") + command.name;
            }
        }
        return commands;
    }();
    return table;
}

} // namespace quorlin::cli
