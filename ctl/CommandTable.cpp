#include "ctl/CommandTable.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace quorvix::ctl {

CommandEntry commandTable(const CLI::App& tool) {
    CommandEntry entry{
        .name = tool.get_name(), .help = tool.get_description(), .operands = {}, .options = {}, .commands = {}};
    for (const CLI::Option* option : tool.get_options()) {
        if (option->get_positional()) entry.operands.push_back(option->get_name(true));
        if (!option->nonpositional()) continue;
        OptionEntry& added = entry.options.emplace_back();
        for (const std::string& name : option->get_snames()) added.names.push_back("-" + name);
        for (const std::string& name : option->get_lnames()) added.names.push_back("--" + name);
        added.help = option->get_description();
        added.takesValue = option->get_items_expected_max() > 0;
    }
    for (const CLI::App* command : tool.get_subcommands([](const CLI::App*) { return true; })) {
        entry.commands.push_back(commandTable(*command));
    }
    return entry;
}

nlohmann::ordered_json commandTableJson(const CommandEntry& command) {
    using Json = nlohmann::ordered_json;
    Json options = Json::array();
    for (const OptionEntry& option : command.options) {
        options.push_back({{"names", option.names}, {"help", option.help}, {"takesValue", option.takesValue}});
    }
    Json commands = Json::array();
    for (const CommandEntry& inner : command.commands) commands.push_back(commandTableJson(inner));
    return {{"name", command.name},
            {"help", command.help},
            {"operands", command.operands},
            {"options", std::move(options)},
            {"commands", std::move(commands)}};
}

}  // namespace quorvix::ctl
