#include "ctl/Completions.h"

#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "ctl/KnownPreferences.h"

namespace quorvix::ctl {

namespace {

// What may stand in the place of an operand or an option's value.
struct Values {
    enum class Kind { none, words, files, commands } kind = Kind::none;
    std::string words = {};
    // Files only: one of this folder may be named alone, if its name ends so. Empty: none.
    std::string folder = {};
    std::string_view suffix = {};
};

std::string knownKeys() {
    std::string keys;
    for (const KnownPreference& known : knownPreferences()) keys += (keys.empty() ? "" : " ") + std::string(known.key);
    return keys;
}

// By the name of the operand or the option: the same name means the same thing in every command.
Values valuesOf(std::string_view name) {
    using enum Values::Kind;
    if (name == "KEY") return {words, knownKeys()};
    if (name == "--format") return {words, "text json"};
    if (name == "--category") return {words, "given platform"};
    if (name == "--type") return {words, "bool int uint real string"};
    if (name == "--domain") return {words, std::string(kDefaultDomain) + " " + std::string(kActivationDomain)};
    if (name == "NAME") {
        return {words,
                "com.norvane.quorvix.pref_changed com.norvane.da.tasking_changed"
                " com.norvane.Provisia.profileListChanged"};
    }
    if (name == "JOB") return {words, "hang activations memory"};
    if (name == "SHELL") return {words, "bash zsh fish"};
    if (name == "LEVEL") return {words, "default info debug"};
    if (name == "COMMAND") return {commands};
    for (const std::string_view file : {"FILE", "DIR", "FILE|DIR", "BEFORE", "AFTER", "--file", "--output",
                                        "--directory", "--power-log", "--memory-reports"}) {
        if (name == file) return {files};
    }
    return {};
}

// One of each operand. The command's words tell which reports it reads.
std::vector<Values> operandsOf(const std::string& path, const CommandEntry& command, const ReportFolders& folders) {
    std::vector<Values> operands;
    for (const std::string& operand : command.operands) {
        Values& values = operands.emplace_back(valuesOf(operand));
        if (values.kind != Values::Kind::files) continue;
        if (path.starts_with("report ")) {
            values.folder = folders.hangReports;
            values.suffix = ".swivex";
        } else if (path.starts_with("memory ")) {
            values.folder = folders.memorySnapshots;
            values.suffix = ".ips";
        }
    }
    return operands;
}

using Visitor = std::function<void(const std::string& path, const CommandEntry& command)>;

// Every command with the words that lead to it: "" for the tool, "prefs get".
void visit(const CommandEntry& command, const std::string& path, const Visitor& visitor) {
    visitor(path, command);
    for (const CommandEntry& inner : command.commands) {
        visit(inner, path.empty() ? inner.name : path + " " + inner.name, visitor);
    }
}

std::string joined(const std::vector<std::string>& words, std::string_view separator) {
    std::string text;
    for (const std::string& word : words) {
        if (!text.empty()) text += separator;
        text += word;
    }
    return text;
}

std::vector<std::string> optionNames(const CommandEntry& command) {
    std::vector<std::string> names;
    for (const OptionEntry& option : command.options)
        names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

std::vector<std::string> commandNames(const CommandEntry& command) {
    std::vector<std::string> names;
    for (const CommandEntry& inner : command.commands) names.push_back(inner.name);
    return names;
}

// The patterns of "<path so far> <word>" in which the word leads on.
std::string stepPatterns(const CommandEntry& tool, std::string_view separator) {
    std::vector<std::string> steps;
    visit(tool, "", [&](const std::string& path, const CommandEntry& command) {
        for (const CommandEntry& inner : command.commands) steps.push_back("'" + path + " " + inner.name + "'");
    });
    return joined(steps, separator);
}

// The patterns of "<command> <option>" after which the option's value comes.
std::string valuePatterns(const CommandEntry& tool, std::string_view separator) {
    std::vector<std::string> patterns;
    visit(tool, "", [&](const std::string& path, const CommandEntry& command) {
        for (const OptionEntry& option : command.options) {
            if (!option.takesValue) continue;
            for (const std::string& name : option.names) patterns.push_back("'" + path + " " + name + "'");
        }
    });
    return joined(patterns, separator);
}

// In single quotes, as bash, zsh and fish read them.
std::string shellQuoted(std::string_view text) {
    std::string out = "'";
    for (const char character : text) {
        if (character == '\'') {
            out += "'\\''";
        } else {
            out += character;
        }
    }
    return out + "'";
}

// fish reads backslashes within single quotes too.
std::string fishQuoted(std::string_view text) {
    std::string out = "'";
    for (const char character : text) {
        if (character == '\'' || character == '\\') out += '\\';
        out += character;
    }
    return out + "'";
}

std::string bashReply(const Values& values) {
    switch (values.kind) {
        case Values::Kind::words: return "mapfile -t COMPREPLY < <(compgen -W '" + values.words + "' -- \"$current\")";
        case Values::Kind::files:
            if (values.folder.empty()) return "_quorvixctl_files";
            return "_quorvixctl_files " + shellQuoted(values.folder) + " '" + std::string(values.suffix) + "'";
        case Values::Kind::commands: return "mapfile -t COMPREPLY < <(compgen -c -- \"$current\")";
        case Values::Kind::none: break;
    }
    return "COMPREPLY=()";
}

Values wordsOf(const std::vector<std::string>& words) { return {Values::Kind::words, joined(words, " ")}; }

// What may stand in each place after the command, as patterns of its number for bash and zsh.
std::vector<std::pair<std::string, Values>> placesOf(const std::string& path, const CommandEntry& command,
                                                     const ReportFolders& folders) {
    if (!command.commands.empty()) return {{"0", wordsOf(commandNames(command))}};
    std::vector<std::pair<std::string, Values>> places;
    for (const Values& values : operandsOf(path, command, folders)) {
        places.emplace_back(std::to_string(places.size()), values);
        // Arguments of another program: nothing but files is likely.
        if (values.kind == Values::Kind::commands) places.emplace_back("[1-9]*", Values{Values::Kind::files});
    }
    return places;
}

std::string bashScript(const CommandEntry& tool, const ReportFolders& folders) {
    std::string script =
        "# Completion of quorvixctl in bash. Made by \"quorvixctl completions bash\".\n"
        "# Names of reports in their folder; where none begins so, files, as bash completes them by itself.\n"
        "_quorvixctl_files() {\n"
        "    compopt -o filenames -o default\n"
        "    COMPREPLY=()\n"
        "    [[ $# == 0 || $current == */* ]] ||\n"
        "        mapfile -t COMPREPLY < <(cd \"$1\" 2> /dev/null && compgen -f -X \"!*$2\" -- \"$current\")\n"
        "}\n"
        "_quorvixctl() {\n"
        "    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} command= index operand=0"
        " IFS=$' \\t\\n'\n"
        "    for ((index = 1; index < COMP_CWORD; ++index)); do\n"
        "        case \"$command ${COMP_WORDS[index]}\" in\n"
        "            " +
        stepPatterns(tool, " | ") +
        ")\n"
        "                command=\"${command:+$command }${COMP_WORDS[index]}\" ;;\n"
        "            " +
        valuePatterns(tool, " | ") +
        ")\n"
        "                index=$((index + 1)) ;;\n"
        "            \"$command \"-*) ;;\n"
        "            *) operand=$((operand + 1)) ;;\n"
        "        esac\n"
        "    done\n";
    std::string optionValues;
    std::string rest;
    visit(tool, "", [&](const std::string& path, const CommandEntry& command) {
        for (const OptionEntry& option : command.options) {
            if (!option.takesValue) continue;
            for (const std::string& name : option.names) {
                optionValues += "        '" + path + " " + name + "') " + bashReply(valuesOf(name)) + "; return ;;\n";
            }
        }
        rest += "        '" + path + " options') " + bashReply(wordsOf(optionNames(command))) + " ;;\n";
        for (const auto& [operand, values] : placesOf(path, command, folders))
            rest += "        '" + path + " '" + operand + ") " + bashReply(values) + " ;;\n";
    });
    script += "    case \"$command $previous\" in\n" + optionValues + "    esac\n";
    script += "    local wanted=$operand\n    [[ $current == -* ]] && wanted=options\n    COMPREPLY=()\n";
    script += "    case \"$command $wanted\" in\n" + rest + "    esac\n}\ncomplete -F _quorvixctl quorvixctl\n";
    return script;
}

std::string zshReply(const Values& values) {
    switch (values.kind) {
        case Values::Kind::words: return "compadd -- " + values.words;
        case Values::Kind::files:
            if (values.folder.empty()) return "_files";
            return "compadd -- " + shellQuoted(values.folder) + "/*" + std::string(values.suffix) + "(N:t); _files";
        case Values::Kind::commands: return "_command_names";
        case Values::Kind::none: break;
    }
    return "_message 'no more to complete'";
}

// "--json:As JSON", as _describe takes it.
std::string zshDescribed(std::string_view name, std::string_view help) {
    std::string text;
    for (const char character : name) text += character == ':' ? std::string("\\:") : std::string(1, character);
    return shellQuoted(text + ":" + std::string(help));
}

std::string zshScript(const CommandEntry& tool, const ReportFolders& folders) {
    std::string script =
        "#compdef quorvixctl\n"
        "# Completion of quorvixctl in zsh. Made by \"quorvixctl completions zsh\".\n"
        "_quorvixctl() {\n"
        "    local command= wanted\n"
        "    integer index operand=0\n"
        "    for ((index = 2; index < CURRENT; ++index)); do\n"
        "        case \"$command ${words[index]}\" in\n"
        "            (" +
        stepPatterns(tool, " | ") +
        ")\n"
        "                command=\"${command:+$command }${words[index]}\" ;;\n"
        "            (" +
        valuePatterns(tool, " | ") +
        ")\n"
        "                ((++index)) ;;\n"
        "            (\"$command \"-*) ;;\n"
        "            (*) ((++operand)) ;;\n"
        "        esac\n"
        "    done\n";
    std::string optionValues;
    std::string rest;
    visit(tool, "", [&](const std::string& path, const CommandEntry& command) {
        std::vector<std::string> options;
        for (const OptionEntry& option : command.options) {
            for (const std::string& name : option.names) {
                options.push_back(zshDescribed(name, option.help));
                if (!option.takesValue) continue;
                optionValues += "        ('" + path + " " + name + "') " + zshReply(valuesOf(name)) + "; return ;;\n";
            }
        }
        std::vector<std::string> commands;
        for (const CommandEntry& inner : command.commands) commands.push_back(zshDescribed(inner.name, inner.help));
        rest +=
            "        ('" + path + " options') choices=(" + joined(options, " ") + "); _describe option choices ;;\n";
        for (const auto& [operand, values] : placesOf(path, command, folders)) {
            rest += "        ('" + path + " '" + operand + ") " +
                    (commands.empty() ? zshReply(values)
                                      : "choices=(" + joined(commands, " ") + "); _describe command choices") +
                    " ;;\n";
        }
    });
    script += "    case \"$command ${words[CURRENT - 1]}\" in\n" + optionValues + "    esac\n";
    script += "    wanted=$operand\n    [[ ${words[CURRENT]} == -* ]] && wanted=options\n    local -a choices\n";
    script += "    case \"$command $wanted\" in\n" + rest + "    esac\n}\n";
    // Read as a function's body where the shell loads it by itself, and as a script where a user sources it.
    script +=
        "if [[ ${funcstack[1]} == _quorvixctl ]]; then _quorvixctl \"$@\"; else compdef _quorvixctl quorvixctl; fi\n";
    return script;
}

// What follows the condition in a line of "complete".
std::string fishArguments(const Values& values) {
    switch (values.kind) {
        case Values::Kind::words: return " -f -a " + fishQuoted(values.words);
        case Values::Kind::files:
            if (values.folder.empty()) return " -F";
            return " -F -a " + fishQuoted("(for file in " + fishQuoted(values.folder) + "/*" +
                                          std::string(values.suffix) + "; string replace -r '.*/' '' -- $file; end)");
        case Values::Kind::commands: return " -f -a '(__fish_complete_command)'";
        case Values::Kind::none: break;
    }
    return " -f";
}

std::string fishScript(const CommandEntry& tool, const ReportFolders& folders) {
    std::string script =
        "# Completion of quorvixctl in fish. Made by \"quorvixctl completions fish\".\n"
        "# The command and how many operands it has already: \"prefs set:1\".\n"
        "function __quorvixctl_place\n"
        "    set -l command ''\n"
        "    set -l operand 0\n"
        "    set -l isValue 0\n"
        "    set -l words (commandline -opc)\n"
        "    for word in $words[2..-1]\n"
        "        if test $isValue = 1\n"
        "            set isValue 0\n"
        "            continue\n"
        "        end\n"
        "        switch \"$command $word\"\n"
        "            case " +
        stepPatterns(tool, " ") +
        "\n"
        "                set command (string trim -- \"$command $word\")\n"
        "            case " +
        valuePatterns(tool, " ") +
        "\n"
        "                set isValue 1\n"
        "            case \"$command -*\"\n"
        "            case '*'\n"
        "                set operand (math $operand + 1)\n"
        "        end\n"
        "    end\n"
        "    echo \"$command:$operand\"\n"
        "end\n"
        "function __quorvixctl_at\n"
        "    string match -q -- \"$argv:*\" (__quorvixctl_place)\n"
        "end\n"
        "complete -c quorvixctl -f\n";
    visit(tool, "", [&](const std::string& path, const CommandEntry& command) {
        const std::string at = "complete -c quorvixctl -n " + fishQuoted("__quorvixctl_at " + path);
        const auto atOperand = [&path](const std::string& operand) {
            return "complete -c quorvixctl -n " +
                   fishQuoted("string match -q -r '^" + path + ":" + operand + "$' (__quorvixctl_place)");
        };
        for (const CommandEntry& inner : command.commands) {
            script += atOperand("0") + " -f -a " + inner.name + " -d " + fishQuoted(inner.help) + "\n";
        }
        for (const OptionEntry& option : command.options) {
            script += at;
            for (const std::string& name : option.names) {
                script += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
            }
            if (option.takesValue) script += " -r" + fishArguments(valuesOf(option.names.back()));
            script += " -d " + fishQuoted(option.help) + "\n";
        }
        if (!command.commands.empty()) return;
        for (const auto& [operand, values] : placesOf(path, command, folders)) {
            if (values.kind != Values::Kind::none) script += atOperand(operand) + fishArguments(values) + "\n";
        }
    });
    return script;
}

}  // namespace

std::optional<std::string> completionScript(std::string_view shell, const CommandEntry& tool,
                                            const ReportFolders& folders) {
    if (shell == "bash") return bashScript(tool, folders);
    if (shell == "zsh") return zshScript(tool, folders);
    if (shell == "fish") return fishScript(tool, folders);
    return std::nullopt;
}

}  // namespace quorvix::ctl
