#include "cli/CommandLine.h"

#include <sstream>

// Shell completion scripts, written from the command table so they can't fall behind it.
// Flow ids come from `quorlin flows --ids` at the moment of completing.

namespace quorlin::cli {

namespace {

// The top-level command names, or with parent the second words of its subcommands
// ("show" for "history show"), separated by spaces.
std::string commandWords(const std::string& parent = {}) {
    std::string words;
    for (const auto& command : commandTable()) {
        const auto space = command.name.find(' ');
        const bool wanted =
            parent.empty() ? space == std::string::npos
                           : space != std::string::npos && command.name.substr(0, space) == parent;
        if (wanted) {
            words += (words.empty() ? "" : " ") +
                     (parent.empty() ? command.name : command.name.substr(space + 1));
        }
    }
    return words;
}

// "'history show'|'settings set'": the two-word commands, as a shell case pattern.
std::string subcommandPattern() {
    std::string pattern;
    for (const auto& command : commandTable()) {
        if (command.name.find(' ') != std::string::npos) {
            pattern += (pattern.empty() ? "'" : "|'") + command.name + "'";
        }
    }
    return pattern;
}

// What bash offers for an operand or an option value.
std::string bashCandidates(const std::string& kind) {
    if (kind == "flows") {
        return "COMPREPLY=($(compgen -W \"$(quorlin flows --ids 2>/dev/null)\" -- \"$cur\") "
               "$(compgen -d -- \"$cur\"))";
    }
    if (kind == "files") {
        return "COMPREPLY=($(compgen -f -- \"$cur\"))";
    }
    if (kind == "dirs") {
        return "COMPREPLY=($(compgen -d -- \"$cur\"))";
    }
    return "COMPREPLY=($(compgen -W \"" + kind + "\" -- \"$cur\"))";
}

std::string valueKind(const OptionSpec& option) {
    if (!option.choices.empty()) {
        std::string words;
        for (const auto& choice : option.choices) {
            words += (words.empty() ? "" : " ") + choice;
        }
        return words;
    }
    if (option.valueName == "<path>" || option.valueName == "<file>") {
        return "files";
    }
    if (option.valueName == "<id>") {
        return "flows";
    }
    return "";
}

std::string bashScript() {
    std::ostringstream out;
    out << "# bash completion for quorlin\n"
           "_quorlin() {\n"
           "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
           "    COMPREPLY=()\n"
           "    if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
           "        COMPREPLY=($(compgen -W \""
        << commandWords()
        << " --help --version\" -- \"$cur\"))\n"
           "        return\n"
           "    fi\n"
           "    local command=${COMP_WORDS[1]} first=2\n"
           "    if [ \"$COMP_CWORD\" -gt 2 ]; then\n"
           "        case \"$command ${COMP_WORDS[2]}\" in\n"
           "        "
        << subcommandPattern()
        << ") command=\"$command ${COMP_WORDS[2]}\" first=3 ;;\n"
           "        esac\n"
           "    fi\n"
           "    case \"$command:$prev\" in\n";
    for (const auto& command : commandTable()) {
        for (const auto& option : command.options) {
            if (option.valueName.empty()) {
                continue;
            }
            const auto kind = valueKind(option);
            // A value with nothing to offer still stops here, so no option is offered.
            out << "    '" << command.name << ":" << option.name << "') "
                << (kind.empty() ? "" : bashCandidates(kind) + "; ") << "return ;;\n";
        }
    }
    out << "    esac\n"
           "    case \"$command\" in\n";
    for (const auto& command : commandTable()) {
        std::string options = "--help";
        for (const auto& option : command.options) {
            options += " " + option.name;
        }
        out << "    '" << command.name << "')\n"
            << "        if [[ $cur == -* ]]; then COMPREPLY=($(compgen -W \"" << options
            << "\" -- \"$cur\")); return; fi\n";
        if (const auto subcommands = commandWords(command.name); !subcommands.empty()) {
            out << "        [ \"$COMP_CWORD\" -eq 2 ] && COMPREPLY=($(compgen -W \"" << subcommands
                << "\" -- \"$cur\"))\n";
        }
        if (!command.operandCompletion.empty()) {
            out << "        [ \"$COMP_CWORD\" -ge \"$first\" ] && "
                << bashCandidates(command.operandCompletion) << "\n";
        }
        out << "        ;;\n";
    }
    out << "    esac\n"
           "}\n"
           "complete -F _quorlin quorlin\n";
    return out.str();
}

// zsh's _arguments reads colons and brackets in descriptions; quote them.
std::string zshText(const std::string& text) {
    std::string quoted;
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else if (c == ':' || c == '[' || c == ']') {
            quoted += std::string("\\") + c;
        } else {
            quoted += c;
        }
    }
    return quoted;
}

std::string zshAction(const std::string& kind) {
    if (kind == "flows") {
        return "{_alternative 'flows\\:flow\\:(${(f)\"$(quorlin flows --ids 2>/dev/null)\"})' "
               "'dirs\\:bundle folder\\:_files -/'}";
    }
    if (kind == "files") {
        return "_files";
    }
    if (kind == "dirs") {
        return "_files -/";
    }
    return "(" + kind + ")";
}

std::string zshScript() {
    std::ostringstream out;
    out << "#compdef quorlin\n"
           "# zsh completion for quorlin\n"
           "_quorlin() {\n"
           "    local -a commands\n"
           "    commands=(\n";
    for (const auto& command : commandTable()) {
        if (command.name.find(' ') == std::string::npos) {
            out << "        '" << command.name << ":" << zshText(command.summary) << "'\n";
        }
    }
    out << "    )\n"
           "    if (( CURRENT == 2 )); then\n"
           "        _describe command commands\n"
           "        return\n"
           "    fi\n"
           "    local command=$words[2]\n"
           "    shift words; (( CURRENT-- ))\n"
           "    case \"$command $words[2]\" in\n"
           "    "
        << subcommandPattern()
        << ")\n"
           "        command=\"$command $words[2]\"\n"
           "        shift words; (( CURRENT-- )) ;;\n"
           "    esac\n"
           "    case $command in\n";
    for (const auto& command : commandTable()) {
        out << "    '" << command.name << "')\n        _arguments -s '(- *)--help[Show help]'";
        for (const auto& option : command.options) {
            out << " '" << (option.repeatable ? "*" : "") << option.name << "["
                << zshText(option.help) << "]";
            if (!option.valueName.empty()) {
                const auto kind = valueKind(option);
                out << ":" << zshText(option.valueName) << ":"
                    << (kind.empty() ? " " : zshAction(kind));
            }
            out << "'";
        }
        if (const auto subcommands = commandWords(command.name); !subcommands.empty()) {
            out << " '1:subcommand:(" << subcommands << ")'";
        } else if (!command.operandCompletion.empty()) {
            out << " '1:" << zshText(command.operands) << ":"
                << zshAction(command.operandCompletion) << "'";
        }
        out << " ;;\n";
    }
    out << "    esac\n"
           "}\n"
           "if [[ ${zsh_eval_context[-1]} == loadautofunc ]]; then\n"
           "    _quorlin \"$@\"\n"
           "else\n"
           "    compdef _quorlin quorlin\n"
           "fi\n";
    return out.str();
}

} // namespace

std::string completionScript(const std::string& shell) {
    return shell == "zsh" ? zshScript() : bashScript();
}

} // namespace quorlin::cli
