// "quorvixctl log": the daemon's own story of one app, and which lines the daemon keeps.

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <deque>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>

#include "ctl/LogLevelCommand.h"
#include "ctl/LogStory.h"
#include "ctl/Printable.h"
#include "ctl/Program.h"
#include "ctl/Progress.h"
#include "ctl/Style.h"
#include "ctl/Verb.h"
#include "platform/linux/Utf8.h"

namespace quorvix::ctl {

namespace {

// The newest are kept: a journal may hold years.
constexpr std::size_t kMostLines = 500'000;

struct LogRequest {
    std::string app;
    std::string since;
    std::string file;
    std::size_t lines = 0;
    bool asJson = false;
};

class Collector {
public:
    void add(std::optional<LogLine> line) {
        if (!line) return;
        lines_.push_back(std::move(*line));
        if (lines_.size() > kMostLines) lines_.pop_front();
    }
    bool empty() const { return lines_.empty(); }
    std::vector<LogLine> take() {
        return {std::make_move_iterator(lines_.begin()), std::make_move_iterator(lines_.end())};
    }

private:
    std::deque<LogLine> lines_;
};

// Who may write under a name is for anyone to choose; under the user 0 it is not.
std::vector<std::string> journalCommand(const std::string& program, const std::string& since) {
    std::vector<std::string> command{program,
                                     "--output=json",
                                     "--all",
                                     "--no-pager",
                                     "--quiet",
                                     "SYSLOG_IDENTIFIER=quorvixd",
                                     "QUORVIX_SUBSYSTEM=com.norvane.quorvix",
                                     "_UID=0"};
    if (!since.empty()) command.insert(command.begin() + 1, "--since=" + since);
    return command;
}

bool readFile(const std::string& path, Collector& lines) {
    std::ifstream file;
    if (path != "-") {
        struct stat status {};
        // Opening a pipe would wait for its other end for ever.
        if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
        file.open(path);
        if (!file) return false;
    }
    std::istream& input = path == "-" ? std::cin : file;
    for (std::string line; std::getline(input, line);) lines.add(logLineOfText(line));
    return true;
}

// False, and a line said: there is nothing to read.
bool readLog(const LogRequest& request, const ToolServices& services, Collector& lines) {
    if (!request.file.empty()) {
        if (readFile(request.file, lines)) return true;
        services.error << "quorvixctl: " << printable(request.file) << " can't be read\n";
        return false;
    }
    const Progress progress(services, "Reading the journal");
    const auto end = runProgram(journalCommand(services.journalProgram, request.since),
                                [&](std::string_view line) { lines.add(logLineOfJournal(line)); });
    const bool read = end && end->status == 0;
    if (read && !lines.empty()) return true;
    // journalctl is there, and silent, on systems without a journal too.
    if ((read || !end) && readFile(services.logFile, lines)) return true;
    if (read && services.isRoot) return true;
    if (read) {
        services.error << "quorvixctl: this user sees nothing of quorvixd in the journal: run this as root\n";
        return false;
    }
    services.error << "quorvixctl: the journal can't be read ("
                   << (end ? services.journalProgram + " ended with " + std::to_string(end->status)
                           : services.journalProgram + ": " + end.error().text())
                   << "). Where there is none, name the file that keeps quorvixd's standard error with --file\n";
    return false;
}

Colour colourOf(const LogLine& line) {
    if (line.level == "default") return Colour::doubtful;
    return line.level == "debug" ? Colour::quiet : Colour::good;
}

void print(const std::vector<LogLine>& story, const ToolServices& services) {
    for (const LogLine& line : story) {
        if (!line.time.empty()) services.out << printable(line.time) << "  ";
        std::string level = line.level;
        level.resize(8, ' ');
        services.out << coloured(level, colourOf(line), services.colours);
        if (!line.category.empty()) services.out << "[" << printable(line.category) << "] ";
        services.out << printable(line.message);
        if (!line.reason.empty()) services.out << "  (" << printable(line.reason) << ")";
        services.out << "\n";
    }
}

nlohmann::ordered_json jsonOf(const std::vector<LogLine>& story) {
    auto list = nlohmann::ordered_json::array();
    for (const LogLine& line : story) {
        list.push_back({{"time", line.time},
                        {"level", line.level},
                        {"category", line.category},
                        {"message", linuxos::withReplacementCharacters(line.message)},
                        {"event", line.event},
                        {"reason", line.reason}});
    }
    return list;
}

ExitStatus showStory(const LogRequest& request, const ToolServices& services) {
    if (request.app.empty()) {
        services.error << "quorvixctl: name an app: its name, its bundle identifier or its process's number\n";
        return ExitStatus::usage;
    }
    Collector lines;
    if (!readLog(request, services, lines)) return ExitStatus::failed;
    std::vector<LogLine> story = storyOf(request.app, lines.take());
    if (request.lines > 0 && story.size() > request.lines) {
        story.erase(story.begin(), story.end() - static_cast<std::ptrdiff_t>(request.lines));
    }
    if (request.asJson) {
        services.out << jsonText(jsonOf(story));
    } else if (story.empty()) {
        services.error << "quorvixctl: the log tells nothing of " << printable(request.app) << "\n";
    } else {
        print(story, services);
    }
    return ExitStatus::done;
}

}  // namespace

void addLogVerb(CLI::App& tool, const VerbContext& context) {
    CLI::App* command = tool.add_subcommand("log", "Shows the daemon's own story of one app");
    command->require_subcommand(0, 1);
    const auto request = std::make_shared<LogRequest>();
    command->add_option("APP,--app", request->app, "Its name, its bundle identifier or its process's number");
    command->add_option("--since", request->since, "From this time on, as the journal takes it: \"1 hour ago\"");
    command->add_option("--lines", request->lines, "The last so many lines only");
    command->add_option("--file", request->file,
                        "Instead of the journal, what quorvixd said on standard error; -: read here");
    command->add_flag("--json", request->asJson, "As JSON");
    command->callback([context, request, command] {
        if (!command->get_subcommands().empty()) return;
        context.action = [&services = context.services, request] { return showStory(*request, services); };
    });
    addLogLevelCommand(*command, context);
}

}  // namespace quorvix::ctl
