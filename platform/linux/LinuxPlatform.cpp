#include "platform/linux/LinuxPlatform.h"

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

namespace quorvix::linuxos {

namespace {

// Each client costs two descriptors; the soft limit that a shell or an old service manager leaves us is too low for
// the connections we allow. Ignored when it fails: the message service copes with running out.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

LinuxPlatform::LinuxPlatform()
    : services_{.tickClock = tickClock_,
                .wallClock = wallClock_,
                .queues = queues_,
                .messages = messages_,
                .regions = regions_,
                .notifications = notifications_,
                .preferences = preferences_,
                .propertyLists = propertyLists_,
                .capabilities = capabilities_,
                .log = log_,
                .counters = counters_,
                .processes = processes_,
                .host = host_,
                .files = files_,
                .libraries = libraries_,
                .json = json_,
                .random = random_,
                .renderServer = renderServer_,
                .lifecycle = lifecycle_,
                .state = state_,
                .powerLog = powerLog_,
                .signposts = signposts_,
                .console = console_,
                .systemInformation = systemInformation_,
                .processMemory = processMemory_,
                .kernelMemory = kernelMemory_} {
    raiseDescriptorLimit();
    // A reader of standard error that goes away must not take the daemon with it.
    std::signal(SIGPIPE, SIG_IGN);
    lifecycle_.addFlushHook([this](std::chrono::nanoseconds budget) {
        // What is not written in time is lost with the process; it was said in the log if the disk is the reason.
        (void)counters_.flush(std::chrono::duration_cast<std::chrono::milliseconds>(budget));
    });
    lifecycle_.addFlushHook([this](std::chrono::nanoseconds budget) {
        (void)powerLog_.flush(std::chrono::duration_cast<std::chrono::milliseconds>(budget));
    });
}

void LinuxPlatform::announceTerminationOn(const std::shared_ptr<WorkQueue>& queue) {
    queues_.setTerminationHandler(queue, [this] { messages_.terminationImminent(); });
}

void LinuxPlatform::answerWatchdogOn(const std::shared_ptr<WorkQueue>& queue) {
    if (const auto limit = WatchdogPing::limitFromEnvironment()) {
        watchdogPing_ = std::make_unique<WatchdogPing>(*queue, *limit, [this] { lifecycle_.alive(); });
    }
}

void LinuxPlatform::StateWithSelfCounters::publish(std::string_view endpoint, const std::shared_ptr<WorkQueue>& queue,
                                                   std::function<JsonObject()> provider) {
    sockets_.publish(endpoint, queue, [this, provider = std::move(provider)] {
        JsonObject state{{"pid", std::int32_t{getpid()}}, {"version", QUORVIX_VERSION}};
        const JsonObject given = provider();
        for (const auto& [name, value] : given.members()) state.add(name, value);
        state.add("platform", owner_.selfCounters());
        return state;
    });
}

JsonObject LinuxPlatform::selfCounters() const {
    return {
        {"log", log_.selfCounters()},
        {"queues", queues_.selfCounters()},
        {"messages", messages_.selfCounters()},
        {"regions", regions_.selfCounters()},
        {"notifications", notifications_.selfCounters()},
        {"preferences", preferences_.selfCounters()},
        {"counters", counters_.selfCounters()},
        {"signposts", signposts_.selfCounters()},
        {"console", console_.selfCounters()},
        {"powerLog", powerLog_.selfCounters()},
        {"processMemory", processMemory_.selfCounters()},
        {"kernelMemory", kernelMemory_.selfCounters()},
        {"state", state_.selfCounters()},
    };
}

}  // namespace quorvix::linuxos
