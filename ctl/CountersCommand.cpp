// "quorvixctl counters": what the daemon has counted (docs/counters.md).

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/CounterQuery.h"
#include "ctl/Printable.h"
#include "ctl/Verb.h"

namespace quorvix::ctl {

namespace {

struct CountersRequest {
    std::string filter;
    bool asJson = false;
};

ExitStatus counters(const CountersRequest& request, const ToolServices& services) {
    try {
        const CounterList list = readCounters(services.counterPath, request.filter);
        services.out << (request.asJson ? jsonText(list.json()) : list.table());
        return ExitStatus::done;
    } catch (const std::runtime_error& error) {
        services.error << "quorvixctl: " << error.what() << "\n";
        return ExitStatus::failed;
    }
}

}  // namespace

void addCountersVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("counters", "Shows what quorvixd has counted");
    const auto request = std::make_shared<CountersRequest>();
    command->add_option("FILTER", request->filter, "Only keys that hold this text, whatever the case of its letters");
    command->add_flag("--json", request->asJson, "As JSON");
    command->callback([context, request] {
        context.action = [&services = context.services, request] { return counters(*request, services); };
    });
}

}  // namespace quorvix::ctl
