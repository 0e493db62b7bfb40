// "quorvixctl budget": what reports are left to spend, when they come back, and which hangs went without one.

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/BudgetReport.h"
#include "ctl/Printable.h"
#include "ctl/StateDocument.h"
#include "ctl/Verb.h"

namespace quorvix::ctl {

namespace {

ExitStatus budget(bool asJson, const ToolServices& services) {
    const StateDocument document = readStateDocument(services);
    if (document.status != ExitStatus::done) return document.status;
    services.out << (asJson ? jsonText(budgetJson(document.state)) : budgetReport(document.state));
    return ExitStatus::done;
}

}  // namespace

void addBudgetVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("budget", "Shows the reports that are left to spend, and refusals");
    const auto asJson = std::make_shared<bool>(false);
    command->add_flag("--json", *asJson, "As JSON");
    command->callback([context, asJson] {
        context.action = [&services = context.services, asJson] { return budget(*asJson, services); };
    });
}

}  // namespace quorvix::ctl
