#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace quorvix::ctl {

// The tool's commands as data, read off the parser itself: what completions, the manual's check and the tests go by, so
// that none of them can tell of a command that the parser does not take.

struct OptionEntry {
    std::vector<std::string> names;  // "--json"; both of "-h" and "--help"
    std::string help;
    bool takesValue = false;
};

struct CommandEntry {
    std::string name;
    std::string help;
    std::vector<std::string> operands;  // "KEY", in their order
    std::vector<OptionEntry> options;
    std::vector<CommandEntry> commands;
};

CommandEntry commandTable(const CLI::App& tool);

nlohmann::ordered_json commandTableJson(const CommandEntry& command);

}  // namespace quorvix::ctl
