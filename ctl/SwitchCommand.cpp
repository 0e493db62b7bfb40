#include "ctl/SwitchCommand.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ostream>
#include <string_view>

#include "ctl/PreferencesCommand.h"

namespace quorvix::ctl {

namespace {

struct Job {
    std::string_view name;
    std::string_view key;
    // A second key that it is of little use without; stays as it is when the job is switched off. Empty: none.
    std::string_view companion;
};

constexpr std::array<Job, 3> kJobs{{
    {"hang", "QuorvixEnabled", "QuorvixEnableSwivex"},
    {"activations", "QuorvixEnableAppActivationLogging", ""},
    {"memory", "QuorvixEnableMemoryLogging", ""},
}};

PreferenceRequest requestOf(std::string_view key, bool notify = true) {
    PreferenceRequest request;
    request.key = key;
    request.notify = notify;
    return request;
}

const Job& jobNamed(std::string_view name) { return *std::ranges::find(kJobs, name, &Job::name); }

}  // namespace

ExitStatus SwitchCommand::enable(const std::string& name) const {
    const Job& job = jobNamed(name);
    const PreferencesCommand preferences(services_);
    // The companion first, without a word to the daemon: it reads both when it is told of the other.
    if (!job.companion.empty()) {
        const ExitStatus set = preferences.set(requestOf(job.companion, false), "true");
        if (set != ExitStatus::done) return set;
    }
    if (const ExitStatus set = preferences.set(requestOf(job.key), "true"); set != ExitStatus::done) {
        return set;
    }
    const Result<void> started = services_.startDaemon();
    if (started) return ExitStatus::done;
    services_.error << "quorvixctl: saved, but quorvixd could not be started: "
                    << (started.error().value == ENOSYS ? "no service manager that is known runs here; start it by hand"
                                                        : "see \"systemctl status quorvixd\"")
                    << "\n";
    return ExitStatus::failed;
}

ExitStatus SwitchCommand::disable(const std::string& name) const {
    return PreferencesCommand(services_).set(requestOf(jobNamed(name).key), "false");
}

}  // namespace quorvix::ctl
