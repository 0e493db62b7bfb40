#include "ctl/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/ActivationMessages.h"
#include "ctl/ActivationRun.h"
#include "ctl/ActivationsCommand.h"
#include "ctl/MemoryCommand.h"
#include "ctl/PreferencesCommand.h"
#include "ctl/Printable.h"
#include "ctl/PruneCommand.h"
#include "ctl/RecorderCommand.h"
#include "ctl/ReportCommand.h"
#include "ctl/ReportPageCommand.h"
#include "ctl/SwitchCommand.h"
#include "ctl/Verb.h"
#include "platform/linux/MessageCodec.h"

namespace quorvix::ctl {

namespace {

ExitStatus tell(const std::vector<std::uint8_t>& message, bool asJson, const ToolServices& services) {
    if (message.size() > linuxos::kMaximumDatagramBytes) {
        services.error << "quorvixctl: the bundle identifier is too long for a message\n";
        return ExitStatus::usage;
    }
    const Result<void> sent = sendMessage(services.messagePath, message);
    if (sent) {
        if (asJson) services.out << jsonText({{"told", true}});
        return ExitStatus::done;
    }
    const int error = sent.error().value;
    if (error == ENOENT || error == ECONNREFUSED) {
        services.error << "quorvixctl: quorvixd is not running (nothing listens at " << services.messagePath << ")\n";
        return ExitStatus::notRunning;
    }
    services.error << "quorvixctl: quorvixd could not be told: " << sent.error().text() << "\n";
    return ExitStatus::failed;
}

// The parser, what it fills, and what the chosen command then runs.
class CommandLine {
public:
    explicit CommandLine(const ToolServices& services)
        : services_(services),
          preferences_(services),
          activations_(services),
          memory_(services),
          recorder_(services),
          report_(services),
          page_(services),
          prune_(services),
          switch_(services) {
        app_.require_subcommand(1);
        app_.set_version_flag("--version", "quorvixctl " QUORVIX_VERSION, "Prints the version, and does nothing else");
        const VerbContext context{services_, action_};
        addStatusVerb(app_, context);
        addPreferences();
        addNotifyVerb(app_, context);
        addActivations();
        addActivation();
        addMemory();
        addRecorder();
        addReport();
        addSwitches();
        addCountersVerb(app_, context);
        addBudgetVerb(app_, context);
        addLogVerb(app_, context);
        addDoctorVerb(app_, context);
        addCompletionsVerb(app_, context);
    }

    ExitStatus run(std::vector<std::string> arguments) {
        std::ranges::reverse(arguments);  // the parser takes them last first
        try {
            app_.parse(std::move(arguments));
        } catch (const CLI::ParseError& error) {
            // A question for help or the version arrives as such an error too, with status 0.
            if (error.get_exit_code() != 0) return misunderstood(error);
            app_.exit(error, services_.out, services_.error);
            return ExitStatus::done;
        }
        return action_();
    }

private:
    // Says it in one line, as everything that goes wrong is said. The parser misses a command where one is mistyped:
    // the word that stands there helps more.
    ExitStatus misunderstood(const CLI::ParseError& error) const {
        const CLI::App* command = &app_;
        std::string words = app_.get_name();
        while (!command->get_subcommands().empty()) {
            command = command->get_subcommands().front();
            words += " " + command->get_name();
        }
        std::string why = error.what();
        const std::vector<std::string> unknown = command->remaining();
        if (command->get_require_subcommand_min() > 0 && !unknown.empty()) {
            const bool isOption = unknown.front().starts_with('-');
            why = '"' + unknown.front() + (isOption ? "\" is not an option" : "\" is not a command");
        }
        services_.error << "quorvixctl: " << printable(why) << " (\"" << words << " --help\" says more)\n";
        return ExitStatus::usage;
    }

    void addPreferences() {
        CLI::App* group = app_.add_subcommand("prefs", "Reads and changes quorvixd's preferences");
        group->require_subcommand(1);

        CLI::App* get = group->add_subcommand("get", "Prints one value");
        addKey(get);
        get->add_flag("--origin", request_.origin, "What quorvixd goes by, and what decides it");
        get->add_flag("--json", request_.asJson, "As JSON");
        get->callback([this] { action_ = [this] { return preferences_.get(request_); }; });

        CLI::App* set = group->add_subcommand("set", "Sets one value and tells quorvixd");
        addKey(set);
        set->add_option("VALUE", value_, "The value")->required();
        set->add_option("--type", kindName_, "bool, int, uint, real or string; for an unknown key")
            ->check(CLI::IsMember({"bool", "int", "uint", "real", "string"}));
        addNotifyFlag(set);
        set->add_flag("--json", request_.asJson, "As JSON");
        set->callback([this] {
            if (!kindName_.empty()) request_.kind = kindNamed(kindName_);
            action_ = [this] { return preferences_.set(request_, value_); };
        });

        CLI::App* unset = group->add_subcommand("unset", "Removes one key and tells quorvixd");
        addKey(unset);
        addNotifyFlag(unset);
        unset->add_flag("--json", request_.asJson, "As JSON");
        unset->callback([this] { action_ = [this] { return preferences_.unset(request_); }; });

        CLI::App* list = group->add_subcommand("list", "Prints every known key and what else is stored");
        list->add_option("--domain", request_.domain, "Only this domain");
        list->add_flag("--origin", request_.origin,
                       "What quorvixd goes by, and what decides it: profile, store or default");
        list->add_flag("--json", request_.asJson, "As JSON");
        list->callback([this] { action_ = [this] { return preferences_.list(request_); }; });
    }

    void addKey(CLI::App* command) {
        command->add_option("KEY", request_.key, "The key; \"prefs list\" prints the known ones")->required();
        command->add_option("--domain", request_.domain, "The domain; known keys have their own");
        command->add_flag("--force", request_.force, "Takes keys and domains that quorvixd does not read");
    }

    void addNotifyFlag(CLI::App* command) {
        command->add_flag("!--no-notify", request_.notify, "Does not tell quorvixd of the change");
    }

    void addMemory() {
        CLI::App* group = app_.add_subcommand("memory", "Shows memory snapshot reports and what grew between two");
        group->require_subcommand(1);

        CLI::App* list = group->add_subcommand("list", "Prints the reports there are, the oldest first");
        addJsonFlag(list);
        list->callback([this] { action_ = [this] { return memory_.list(asJson_); }; });

        CLI::App* show = group->add_subcommand("show", "Prints one report");
        show->add_option("FILE", value_, "A path, or a report's name in the report folder")->required();
        addJsonFlag(show);
        show->callback([this] { action_ = [this] { return memory_.show(value_, asJson_); }; });

        CLI::App* diff = group->add_subcommand("diff", "Prints what changed, the greatest growth first");
        diff->add_option("BEFORE", value_, "The earlier report")->required();
        diff->add_option("AFTER", otherValue_, "The later one")->required();
        addRows(diff);
        addJsonFlag(diff);
        diff->callback([this] { action_ = [this] { return memory_.diff(value_, otherValue_, rows_, asJson_); }; });

        CLI::App* top = group->add_subcommand("top", "Prints the greatest of the newest report");
        addRows(top);
        addJsonFlag(top);
        top->callback([this] { action_ = [this] { return memory_.top(rows_, asJson_); }; });

        CLI::App* snapshot = group->add_subcommand("snapshot", "Takes a snapshot now, as quorvixd does");
        addJsonFlag(snapshot);
        snapshot->callback([this] { action_ = [this] { return memory_.snapshot(asJson_); }; });

        CLI::App* prune = group->add_subcommand("prune", "Removes old reports; the newest is kept");
        addPruneLimits(prune);
        prune->callback([this] { action_ = [this] { return prune_.memorySnapshots(pruneRequest()); }; });
    }

    void addPruneLimits(CLI::App* command) {
        constexpr std::uint32_t kCentury = 36500;
        command->add_option("--max-days", pruneDays_, "Reports older than that go")
            ->capture_default_str()
            ->check(CLI::Range(0U, kCentury));
        command->add_option("--max-mib", pruneMebibytes_, "Then the oldest go, until all take at most so much")
            ->capture_default_str();
        command->add_flag("--dry-run", pruneRequest_.dryRun, "Says what would go, and removes nothing");
        addJsonFlag(command);
    }

    PruneRequest pruneRequest() const {
        PruneRequest request = pruneRequest_;
        request.limits.age = std::chrono::days(pruneDays_);
        request.limits.bytes = std::uint64_t{pruneMebibytes_} << 20;
        request.asJson = asJson_;
        return request;
    }

    void addSwitches() {
        CLI::App* enable = app_.add_subcommand("enable", "Switches one of quorvixd's jobs on, and starts quorvixd");
        addJob(enable);
        enable->callback([this] { action_ = [this] { return switched(switch_.enable(value_), true); }; });

        CLI::App* disable = app_.add_subcommand("disable", "Switches one of quorvixd's jobs off");
        addJob(disable);
        disable->callback([this] { action_ = [this] { return switched(switch_.disable(value_), false); }; });
    }

    void addJob(CLI::App* command) {
        command->add_option("JOB", value_, "hang, activations or memory")
            ->required()
            ->check(CLI::IsMember({"hang", "activations", "memory"}));
        addJsonFlag(command);
    }

    ExitStatus switched(ExitStatus status, bool on) const {
        if (status == ExitStatus::done && asJson_) services_.out << jsonText({{"job", value_}, {"on", on}});
        return status;
    }

    void addRecorder() {
        CLI::App* group = app_.add_subcommand("recorder", "Switches the flight recorder of hang reports on and off");
        group->require_subcommand(1);
        const auto addInstance = [this](CLI::App* command) {
            command->add_option("--instance", recorderRequest_.instance, "Another recorder than quorvixd's, by name")
                ->capture_default_str();
        };

        CLI::App* on = group->add_subcommand("on", "Switches it on, or puts right what is on already");
        on->add_option("--size", recorderRequest_.kilobytes, "KiB of each CPU's ring")
            ->check(CLI::Range(RecorderCommand::kLeastKilobytes, RecorderCommand::kMostKilobytes))
            ->capture_default_str();
        addInstance(on);
        addJsonFlag(on);
        on->callback([this] { action_ = [this] { return recorder_.on(recorderRequest_, asJson_); }; });

        CLI::App* off = group->add_subcommand("off", "Switches it off and gives its memory back");
        addInstance(off);
        addJsonFlag(off);
        off->callback([this] { action_ = [this] { return recorder_.off(recorderRequest_, asJson_); }; });

        CLI::App* shown = group->add_subcommand("status", "Shows whether it is on, and how far back it reaches");
        addInstance(shown);
        addJsonFlag(shown);
        shown->callback([this] { action_ = [this] { return recorder_.status(recorderRequest_, asJson_); }; });
    }

    void addReport() {
        CLI::App* group =
            app_.add_subcommand("report", "Reads hang reports, says why an app hung, and looks after the spool");
        group->require_subcommand(1);
        folder_ = services_.spoolFolder;

        CLI::App* list = group->add_subcommand("list", "The reports, newest first: when, which app, how long, why");
        addSpoolFolder(list);
        addJsonFlag(list);
        list->callback([this] { action_ = [this] { return report_.list(folder_, reportFormat()); }; });

        CLI::App* show =
            group->add_subcommand("show", "One report: what it lacks, why the app hung, its stack and waits");
        addReportFile(show);
        addJsonFlag(show);
        show->callback([this] {
            action_ = [this] {
                return report_.show(value_, folder_, {.format = reportFormat(), .symbols = !withoutSymbols_});
            };
        });

        CLI::App* exported = group->add_subcommand("export", "The same for other programs");
        addReportFile(exported);
        exported->add_option("--format", formatName_, "text or json")
            ->check(CLI::IsMember({"text", "json"}))
            ->capture_default_str();
        addJsonFlag(exported);
        exported->callback([this] {
            asJson_ = asJson_ || formatName_ == "json";
            action_ = [this] {
                return report_.show(value_, folder_, {.format = reportFormat(), .symbols = !withoutSymbols_});
            };
        });

        addReportPage(group);

        CLI::App* prune = group->add_subcommand("prune", "Removes old reports; the newest of each app is kept");
        addPruneLimits(prune);
        prune->add_option("--keep-apps", pruneRequest_.limits.keptOwners, "The newest is kept of at most so many apps")
            ->capture_default_str();
        prune->callback([this] { action_ = [this] { return prune_.hangReports(pruneRequest()); }; });
    }

    void addReportPage(CLI::App* group) {
        pageRequest_.powerLog = services_.powerLogPath;
        pageRequest_.memoryFolder = services_.reportFolder;
        CLI::App* html = group->add_subcommand("html", "A page for a browser: one report, or all of a folder");
        html->add_option("FILE|DIR", pageRequest_.from,
                         "A report's path, its name in the folder of the reports, or a folder of reports")
            ->required();
        html->add_option(
            "--output", pageRequest_.output,
            "The page; without it, named after the report, in the current folder; \"-\" for standard output");
        html->add_option("--limit", pageRequest_.limit, "So many reports of a folder are told in full, the newest")
            ->capture_default_str();
        html->add_option("--power-log", pageRequest_.powerLog, "The power log that launches are taken from")
            ->capture_default_str();
        html->add_option("--memory-reports", pageRequest_.memoryFolder, "The folder of memory snapshot reports")
            ->capture_default_str();
        html->add_flag("--no-symbols", withoutSymbols_,
                       "Opens no module's file to name the frames of stacks; modules and addresses only");
        addSpoolFolder(html);
        addJsonFlag(html);
        html->callback([this] {
            action_ = [this] {
                pageRequest_.spoolFolder = folder_;
                pageRequest_.symbols = !withoutSymbols_;
                pageRequest_.asJson = asJson_;
                return page_.write(pageRequest_);
            };
        });
    }

    void addSpoolFolder(CLI::App* command) {
        command->add_option("--directory", folder_, "Where the reports are")->capture_default_str();
    }

    void addReportFile(CLI::App* command) {
        command->add_option("FILE", value_, "A path, or a name in the folder of the reports")->required();
        command->add_flag("--no-symbols", withoutSymbols_,
                          "Opens no module's file to name the frames of the stack; modules and addresses only");
        addSpoolFolder(command);
    }

    ReportCommand::Format reportFormat() const {
        return asJson_ ? ReportCommand::Format::json : ReportCommand::Format::text;
    }

    void addActivations() {
        CLI::App* group = app_.add_subcommand("activations", "Shows the app activations that quorvixd has stored");
        group->require_subcommand(1);

        CLI::App* list = group->add_subcommand("list", "The activations, newest first");
        list->add_option("--limit", limit_, "At most so many")->capture_default_str();
        addJsonFlag(list);
        list->callback([this] { action_ = [this] { return activations_.list(limit_, form()); }; });

        CLI::App* show = group->add_subcommand("show", "One activation: record, processes, memory");
        show->add_option("ID", value_, "Its ID, decimal or hexadecimal; \"activations list\" prints them")->required();
        CLI::Option* console = show->add_flag("--console", asConsole_, "In the layout of the console's tables");
        addJsonFlag(show)->excludes(console);
        show->callback([this] { action_ = [this] { return activations_.show(value_, form()); }; });

        CLI::App* stats = group->add_subcommand("stats", "Durations by app: count, percentiles, longest");
        addJsonFlag(stats);
        stats->callback([this] { action_ = [this] { return activations_.stats(form()); }; });
    }

    void addActivation() {
        CLI::App* group = app_.add_subcommand("activation", "Measures a command, or tells quorvixd of an activation");
        group->require_subcommand(1);

        CLI::App* run = group->add_subcommand("run", "Runs a command and shows what every process used meanwhile");
        CLI::Option* console = run->add_flag("--console", asConsole_, "As the console's tables; the default");
        addJsonFlag(run)->excludes(console);
        run->add_option("COMMAND", command_, "The command and its arguments, after \"--\"")->required();
        run->callback([this] { action_ = [this] { return runActivation(command_, form(), services_); }; });

        CLI::App* begin = group->add_subcommand("begin", "Tells quorvixd that an app's launch or resume begins");
        addApp(begin);
        CLI::Option* launch = begin->add_flag("--launch", isLaunch_, "The app starts; the default");
        begin->add_flag("--resume", isResume_, "The app comes back")->excludes(launch);
        begin->callback([this] {
            action_ = [this] {
                const std::uint64_t now = activationClockNow();
                return tell(messageOf(ActivationBegin{.pid = pid_,
                                                      .bundleID = value_,
                                                      .startTime = now,
                                                      .foreground = !isBackground_,
                                                      .launch = !isResume_},
                                      activationClockNow()),
                            asJson_, services_);
            };
        });

        CLI::App* end = group->add_subcommand("end", "Tells quorvixd that it has ended");
        addApp(end);
        end->add_option("--result", result_, "The launcher's own code; 32 and 33 are quorvixd's")
            ->check(CLI::Range(0, 255));
        end->callback([this] {
            action_ = [this] {
                return tell(messageOf(ActivationEnd{.pid = pid_,
                                                    .bundleID = value_,
                                                    .endTime = activationClockNow(),
                                                    .foreground = !isBackground_,
                                                    .result = result_}),
                            asJson_, services_);
            };
        });
    }

    void addApp(CLI::App* command) {
        command->add_option("--pid", pid_, "The app's process")
            ->required()
            ->check(CLI::Range(1, std::numeric_limits<std::int32_t>::max()));
        command->add_option("--bundle", value_, "The app's bundle identifier")->required();
        CLI::Option* foreground =
            command->add_flag("--foreground", isForeground_, "The app is in the foreground; the default");
        command->add_flag("--background", isBackground_, "It is not")->excludes(foreground);
        addJsonFlag(command);
    }

    CLI::Option* addJsonFlag(CLI::App* command) { return command->add_flag("--json", asJson_, "As JSON"); }

    OutputForm form() const {
        if (asJson_) return OutputForm::json;
        return asConsole_ ? OutputForm::console : OutputForm::text;
    }

    void addRows(CLI::App* command) { command->add_option("--rows", rows_, "Rows of each table"); }

    const ToolServices& services_;
    PreferencesCommand preferences_;
    ActivationsCommand activations_;
    MemoryCommand memory_;
    RecorderCommand recorder_;
    ReportCommand report_;
    ReportPageCommand page_;
    PruneCommand prune_;
    SwitchCommand switch_;
    CLI::App app_{
        "The operator's tool of quorvixd. Exit status: 0 done, 1 failed, 2 not understood, 3 quorvixd does not run.",
        "quorvixctl"};
    PreferenceRequest request_;
    RecorderRequest recorderRequest_;
    std::string value_;
    std::string otherValue_;
    std::size_t rows_ = MemoryCommand::kRowsByDefault;
    std::string kindName_;
    std::string folder_;
    std::string formatName_ = "text";
    bool withoutSymbols_ = false;
    std::vector<std::string> command_;
    std::int32_t pid_ = 0;
    std::int32_t result_ = 0;
    std::uint32_t limit_ = 100;
    PruneRequest pruneRequest_;
    ReportPageRequest pageRequest_;
    std::uint32_t pruneDays_ = 30;
    std::uint32_t pruneMebibytes_ = 512;
    bool asJson_ = false;
    bool asConsole_ = false;
    bool isLaunch_ = false;  // what holds without --resume; likewise below
    bool isResume_ = false;
    bool isForeground_ = false;
    bool isBackground_ = false;
    std::function<ExitStatus()> action_;
};

}  // namespace

ExitStatus runCommandLine(std::vector<std::string> arguments, const ToolServices& services) {
    return CommandLine(services).run(std::move(arguments));
}

}  // namespace quorvix::ctl
