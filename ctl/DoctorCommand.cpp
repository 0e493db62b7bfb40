// "quorvixctl doctor": looks at the installation and says in words what is wrong and how to mend it.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/Diagnosis.h"
#include "ctl/Printable.h"
#include "ctl/Progress.h"
#include "ctl/Style.h"
#include "ctl/Verb.h"

namespace quorvix::ctl {

namespace {

Colour colourOf(Finding::Kind kind) {
    switch (kind) {
        case Finding::Kind::good: return Colour::good;
        case Finding::Kind::notice: return Colour::doubtful;
        case Finding::Kind::problem: break;
    }
    return Colour::bad;
}

Findings examine(const ToolServices& services) {
    const Progress progress(services, "Looking at the installation");
    return examineInstallation(services);
}

void print(const Finding& finding, const ToolServices& services) {
    std::string kind(findingKindName(finding.kind));
    kind.resize(9, ' ');
    std::string area = finding.area;
    area.resize(15, ' ');
    services.out << coloured(kind, colourOf(finding.kind), services.colours) << area << printable(finding.text) << "\n";
    if (!finding.mend.empty()) services.out << std::string(24, ' ') << "-> " << printable(finding.mend) << "\n";
}

nlohmann::ordered_json jsonOf(const Findings& findings, std::size_t problems) {
    auto list = nlohmann::ordered_json::array();
    for (const Finding& finding : findings) {
        list.push_back({{"kind", findingKindName(finding.kind)},
                        {"area", finding.area},
                        {"text", finding.text},
                        {"mend", finding.mend}});
    }
    return {{"problems", problems}, {"findings", std::move(list)}};
}

ExitStatus doctor(bool asJson, const ToolServices& services) {
    const Findings findings = examine(services);
    const auto problems =
        static_cast<std::size_t>(std::ranges::count(findings, Finding::Kind::problem, &Finding::kind));
    if (asJson) {
        services.out << jsonText(jsonOf(findings, problems));
    } else {
        for (const Finding& finding : findings) print(finding, services);
        services.out << "\n"
                     << (problems == 0 ? "No problem was found." : "Problems: " + std::to_string(problems)) << "\n";
    }
    return problems == 0 ? ExitStatus::done : ExitStatus::failed;
}

}  // namespace

void addDoctorVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("doctor", "Says what is wrong with the installation and how to mend it");
    const auto asJson = std::make_shared<bool>(false);
    command->add_flag("--json", *asJson, "As JSON");
    command->callback([context, asJson] {
        context.action = [&services = context.services, asJson] { return doctor(*asJson, services); };
    });
}

}  // namespace quorvix::ctl
