#pragma once

#include <functional>

#include "ctl/ExitStatus.h"
#include "ctl/ToolServices.h"

namespace CLI {
class App;
}

namespace quorvix::ctl {

// What a verb needs to put itself on the command line: what its commands work on, and where the one that was chosen
// leaves what is to run. Both outlive the parsing. Each verb has a file of its own with an add function.
struct VerbContext {
    const ToolServices& services;
    std::function<ExitStatus()>& action;
};

void addNotifyVerb(CLI::App& tool, const VerbContext& context);
void addStatusVerb(CLI::App& tool, const VerbContext& context);
void addBudgetVerb(CLI::App& tool, const VerbContext& context);
void addCountersVerb(CLI::App& tool, const VerbContext& context);
void addLogVerb(CLI::App& tool, const VerbContext& context);
void addDoctorVerb(CLI::App& tool, const VerbContext& context);
void addCompletionsVerb(CLI::App& tool, const VerbContext& context);

}  // namespace quorvix::ctl
