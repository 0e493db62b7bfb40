#include "ctl/LogLevelCommand.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "ctl/Printable.h"
#include "ctl/TextTable.h"
#include "platform/linux/PreferencesFile.h"
#include "platform/linux/PropertyListReader.h"

namespace quorvix::ctl {

namespace {

constexpr const char* kSubsystem = "com.norvane.quorvix";
constexpr const char* kEveryOther = "*";
// The operator's word for the empty category.
constexpr const char* kGivenTexts = "given";

struct LevelRequest {
    std::string level;
    std::string category;
    bool reset = false;
    bool asJson = false;
};

linuxos::PreferencesPlace placeOf(const ToolServices& services) { return {services.logLevelFolder, "logging"}; }

// The categories that quorvixd writes lines of, as the operator names them.
bool isKnownCategory(const std::string& category) { return category == "platform" || category == kGivenTexts; }

std::string categoryKey(const std::string& category) { return category == kGivenTexts ? "" : category; }
std::string categoryName(const std::string& key) { return key.empty() ? kGivenTexts : key; }

// The categories with a level of their own; what is no text is not one.
PropertyListDictionary categoriesOf(const PropertyListDictionary& list) {
    const auto found = list.find(kSubsystem);
    if (found == list.end()) return {};
    const auto* categories = std::get_if<PropertyListDictionary>(&found->second.content());
    return categories ? *categories : PropertyListDictionary{};
}

ExitStatus show(const LevelRequest& request, const ToolServices& services) {
    const std::string path = placeOf(services).path();
    PropertyListDictionary categories;
    const auto list = linuxos::readPropertyListFile(path);
    if (list) {
        categories = categoriesOf(list->dictionary);
    } else if (list.error().value != ENOENT && list.error().value != ENOTDIR) {
        services.error << "quorvixctl: " << path << ": " << list.error().text() << "\n";
        return ExitStatus::failed;
    }
    if (!categories.contains(kEveryOther)) categories.emplace(kEveryOther, "info");
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    std::vector<TextRow> rows{{"category", "keeps"}};
    for (const auto& [key, level] : categories) {
        const auto* text = std::get_if<std::string>(&level.content());
        json[categoryName(key)] = text ? *text : "info";
        rows.push_back({printable(categoryName(key)), text ? printable(*text) : "info"});
    }
    std::string table;
    appendTable(table, rows);
    services.out << (request.asJson ? jsonText(json) : table);
    return ExitStatus::done;
}

ExitStatus change(const LevelRequest& request, const ToolServices& services) {
    // What the list holds already may be taken out of it again, whatever it is.
    if (!request.reset && !request.category.empty() && !isKnownCategory(request.category)) {
        services.error << "quorvixctl: \"" << printable(request.category)
                       << "\" is not a category of quorvixd: platform or given\n";
        return ExitStatus::usage;
    }
    const auto edited = linuxos::editPreferencesFile(placeOf(services), [&](PropertyListDictionary& list) {
        PropertyListDictionary categories = categoriesOf(list);
        if (request.category.empty()) categories.clear();
        if (request.reset) {
            categories.erase(categoryKey(request.category));
        } else {
            categories.insert_or_assign(request.category.empty() ? kEveryOther : categoryKey(request.category),
                                        PropertyListValue(request.level));
        }
        list.insert_or_assign(kSubsystem, PropertyListValue(std::move(categories)));
    });
    if (edited) return request.asJson ? show(request, services) : ExitStatus::done;
    services.error << "quorvixctl: " << placeOf(services).path() << ": " << edited.error().text() << "\n";
    return ExitStatus::failed;
}

}  // namespace

void addLogLevelCommand(CLI::App& log, const VerbContext& context) {
    CLI::App* command = log.add_subcommand("level", "Shows or sets which lines quorvixd keeps");
    const auto request = std::make_shared<LevelRequest>();
    CLI::Option* level = command->add_option("LEVEL", request->level, "default, info or debug: the least that is kept")
                             ->check(CLI::IsMember({"default", "info", "debug"}));
    command->add_option("--category", request->category,
                        "Of this category only: platform, or given for the system's given texts");
    command->add_flag("--reset", request->reset, "Back to what holds without a list: info")->excludes(level);
    command->add_flag("--json", request->asJson, "As JSON");
    command->callback([context, request] {
        const bool changes = request->reset || !request->level.empty();
        context.action = [&services = context.services, request, changes] {
            return changes ? change(*request, services) : show(*request, services);
        };
    });
}

}  // namespace quorvix::ctl
