// quorvixctl: the operator's tool of quorvixd, on the real services.

#include <unistd.h>

#include <cerrno>
#include <exception>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "ctl/CommandLine.h"
#include "ctl/DaemonStart.h"
#include "ctl/Style.h"
#include "ctl/ToolPlatform.h"
#include "memsnapshot/MemorySnapshot.h"
#include "platform/linux/Console.h"
#include "platform/linux/Notifications.h"
#include "platform/linux/PreferencesStore.h"
#include "platform/linux/ProcessNamespace.h"
#include "service/ServiceState.h"

namespace quorvix::ctl {
namespace {

constexpr const char* kStatePath = "/run/vex/com.norvane.quorvixd.state";
constexpr const char* kReportFolder = "/Library/Logs/Faultbox";

// What the services say belongs to the operator who sits there, not to the journal.
class TerminalLog final : public SystemLog {
public:
    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        return level == LogLevel::standard;
    }
    void write(std::string_view, std::string_view, LogLevel, std::string_view text) override {
        std::cerr << "quorvixctl: " << text << "\n";
    }
};

// Where a snapshot's lines go: its failures to the operator, and from its quiet line the report's path.
class SnapshotLog final : public SystemLog {
public:
    bool enabled(std::string_view, std::string_view, LogLevel) noexcept override { return true; }
    void write(std::string_view, std::string_view, LogLevel level, std::string_view text) override {
        constexpr std::string_view kWritten = "Memory snapshot written: ";
        if (level == LogLevel::standard) std::cerr << "quorvixctl: " << text << "\n";
        if (text.starts_with(kWritten)) {
            text.remove_prefix(kWritten.size());
            path = std::string(text.substr(0, text.rfind(" (")));
        }
    }

    std::optional<std::string> path;
};

std::optional<std::string> takeSnapshot() {
    // Kept: the subsystems keep hold of what they see first.
    static SnapshotLog log;
    static linuxos::LinuxConsole console(log);
    static Platform services = toolPlatform(log, console);
    setPlatform(&services);
    serviceState().reportDateFormatter = services.wallClock.makeDateFormatter("yyyy-MM-dd-HHmmss");
    takeMemorySnapshot();
    return log.path;
}

int run(int argumentCount, char** arguments) {
    TerminalLog log;
    linuxos::LinuxPreferencesStore preferences(log);
    const ToolServices services{
        .preferences = preferences,
        .readDomain = [&preferences](const PreferenceDomain& domain) { return preferences.list(domain); },
        .writeDomain = [&preferences](const PreferenceDomain& domain) { return preferences.write(domain); },
        .post =
            [](std::string_view name) {
                return linuxos::postNotification(std::string(linuxos::kNotificationFolder), name);
            },
        .statePath = kStatePath,
        .reportFolder = kReportFolder,
        .takeSnapshot = takeSnapshot,
        .out = std::cout,
        .error = std::cerr,
        .startDaemon = startDaemon,
        .isRoot = geteuid() == 0,
        .seesTheKernelsIds = linuxos::seesTheKernelsIds(),
        .colours = coloursWanted(STDOUT_FILENO),
        .progress = coloursWanted(STDERR_FILENO)};
    const ExitStatus status = runCommandLine({arguments + 1, arguments + argumentCount}, services);
    // A full disk behind a redirection shows only here.
    std::cout.flush();
    if (!std::cout) {
        std::cerr << "quorvixctl: the output could not be written\n";
        return static_cast<int>(ExitStatus::failed);
    }
    return static_cast<int>(status);
}

}  // namespace
}  // namespace quorvix::ctl

int main(int argumentCount, char** arguments) {
    try {
        return quorvix::ctl::run(argumentCount, arguments);
    } catch (const std::exception& error) {
        std::cerr << "quorvixctl: " << error.what() << "\n";
        return static_cast<int>(quorvix::ctl::ExitStatus::failed);
    }
}
