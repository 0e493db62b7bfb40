#include "ctl/CommandTable.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tests/ctl/Tool.h"

namespace quorvix::ctl {
namespace {

using nlohmann::ordered_json;

bool hasOption(const ordered_json& command, const std::string& name) {
    for (const ordered_json& option : command["options"]) {
        for (const ordered_json& one : option["names"]) {
            if (one == name) return true;
        }
    }
    return false;
}

// Every command that does something, with the words that lead to it.
void collect(const ordered_json& command, std::vector<std::string> path,
             std::vector<std::pair<std::vector<std::string>, ordered_json>>& found) {
    if (command["commands"].empty() || !command["operands"].empty()) found.emplace_back(path, command);
    for (const ordered_json& inner : command["commands"]) {
        std::vector<std::string> longer = path;
        longer.push_back(inner["name"]);
        collect(inner, longer, found);
    }
}

class CommandTable : public testing::Test {
protected:
    CommandTable() {
        EXPECT_EQ(tool.run({"completions", "--json"}), ExitStatus::done);
        collect(ordered_json::parse(tool.out.str()), {}, commands);
    }
    Tool tool;
    std::vector<std::pair<std::vector<std::string>, ordered_json>> commands;
};

TEST_F(CommandTable, EveryCommandTakesJson) {
    EXPECT_GT(commands.size(), 20u);
    for (const auto& [path, command] : commands)
        EXPECT_TRUE(hasOption(command, "--json")) << testing::PrintToString(path);
}

TEST_F(CommandTable, EveryCommandGivesHelpOnStandardOutput) {
    for (auto [path, command] : commands) {
        path.emplace_back("--help");
        EXPECT_EQ(tool.run(path), ExitStatus::done) << testing::PrintToString(path);
        EXPECT_THAT(tool.out.str(), testing::HasSubstr("Usage:")) << testing::PrintToString(path);
        EXPECT_FALSE(command["help"].get<std::string>().empty()) << testing::PrintToString(path);
    }
}

TEST_F(CommandTable, KnowsOperandsAndOptionsWithValues) {
    const auto set = std::ranges::find_if(commands, [](const auto& entry) {
        return entry.first == std::vector<std::string>{"prefs", "set"};
    });
    ASSERT_NE(set, commands.end());
    EXPECT_EQ(set->second["operands"], (ordered_json{"KEY", "VALUE"}));
    for (const ordered_json& option : set->second["options"]) {
        const std::string name = option["names"].back();
        EXPECT_EQ(option["takesValue"].get<bool>(), name == "--type" || name == "--domain") << name;
    }
}

TEST_F(CommandTable, AnUnknownShellHasNoCompletions) {
    EXPECT_EQ(tool.run({"completions", "tcsh"}), ExitStatus::usage);
    EXPECT_EQ(tool.run({"completions"}), ExitStatus::usage);
}

}  // namespace
}  // namespace quorvix::ctl
