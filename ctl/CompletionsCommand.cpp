// "quorvixctl completions": the completion script of a shell, or the table of commands that it is made from.

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/CommandTable.h"
#include "ctl/Completions.h"
#include "ctl/Printable.h"
#include "ctl/Verb.h"

namespace quorvix::ctl {

namespace {

struct CompletionsRequest {
    std::string shell;
    bool asJson = false;
};

ExitStatus completions(const CompletionsRequest& request, const CLI::App& tool, const ToolServices& services) {
    const CommandEntry table = commandTable(tool);
    if (request.asJson) {
        services.out << jsonText(commandTableJson(table));
        return ExitStatus::done;
    }
    if (const auto script = completionScript(
            request.shell, table, {.hangReports = services.spoolFolder, .memorySnapshots = services.reportFolder})) {
        services.out << *script;
        return ExitStatus::done;
    }
    services.error << "quorvixctl: name a shell: bash, zsh or fish\n";
    return ExitStatus::usage;
}

}  // namespace

void addCompletionsVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("completions", "Prints a shell's completion script for this tool");
    const auto request = std::make_shared<CompletionsRequest>();
    command->add_option("SHELL", request->shell, "bash, zsh or fish");
    command->add_flag("--json", request->asJson, "The commands and options themselves, as JSON");
    command->callback([context, request, &tool] {
        context.action = [&services = context.services, request, &tool] {
            return completions(*request, tool, services);
        };
    });
}

}  // namespace quorvix::ctl
