// quorvixctl: the operator's tool of quorvixd, on the real services.

#include <cerrno>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "ctl/CommandLine.h"
#include "platform/linux/Notifications.h"
#include "platform/linux/PreferencesStore.h"

namespace quorvix::ctl {
namespace {

constexpr const char* kStatePath = "/run/vex/com.norvane.quorvixd.state";

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
        .out = std::cout,
        .error = std::cerr};
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
