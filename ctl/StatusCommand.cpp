// "quorvixctl status": the daemon's whole state.

#include <CLI/CLI.hpp>
#include <memory>
#include <ostream>

#include "ctl/Printable.h"
#include "ctl/StateDocument.h"
#include "ctl/StateReport.h"
#include "ctl/Verb.h"

namespace quorvix::ctl {

namespace {

ExitStatus status(bool asJson, const ToolServices& services) {
    const StateDocument document = readStateDocument(services);
    if (document.status != ExitStatus::done) return document.status;
    services.out << (asJson ? jsonText(document.state) : stateReport(document.state));
    return ExitStatus::done;
}

}  // namespace

void addStatusVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("status", "Shows what quorvixd watches, its credits and counters");
    const auto asJson = std::make_shared<bool>(false);
    command->add_flag("--json", *asJson, "As the JSON document that quorvixd gives");
    command->callback([context, asJson] {
        context.action = [&services = context.services, asJson] { return status(*asJson, services); };
    });
}

}  // namespace quorvix::ctl
