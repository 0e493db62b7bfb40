// "quorvixctl notify": posts a notification.

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/Printable.h"
#include "ctl/Verb.h"

namespace quorvix::ctl {

namespace {

constexpr std::size_t kMaximumNotificationName = 255;

bool isNotificationName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.size() <= kMaximumNotificationName &&
           name.find('/') == std::string::npos;
}

struct NotifyRequest {
    std::string name;
    bool asJson = false;
};

ExitStatus notify(const NotifyRequest& request, const ToolServices& services) {
    if (!isNotificationName(request.name)) {
        services.error << "quorvixctl: a notification is a name such as com.norvane.da.tasking_changed: at most "
                       << kMaximumNotificationName << " bytes, without \"/\"\n";
        return ExitStatus::usage;
    }
    if (const Result<void> posted = services.post(request.name); !posted) {
        services.error << "quorvixctl: " << printable(request.name) << " could not be posted: " << posted.error().text()
                       << "\n";
        return ExitStatus::failed;
    }
    if (request.asJson) services.out << jsonText({{"posted", request.name}});
    return ExitStatus::done;
}

}  // namespace

void addNotifyVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("notify", "Posts a notification");
    const auto request = std::make_shared<NotifyRequest>();
    command->add_option("NAME", request->name, "Its name")->required();
    command->add_flag("--json", request->asJson, "As JSON");
    command->callback([context, request] {
        context.action = [&services = context.services, request] { return notify(*request, services); };
    });
}

}  // namespace quorvix::ctl
