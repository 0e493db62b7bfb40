#include "ctl/ToolPlatform.h"

#include "platform/linux/LinuxPlatform.h"

namespace quorvix::ctl {

Platform toolPlatform(SystemLog& log, Console& console) {
    static const Platform& real = (*new linuxos::LinuxPlatform).services();
    return Platform{.tickClock = real.tickClock,
                    .wallClock = real.wallClock,
                    .queues = real.queues,
                    .messages = real.messages,
                    .regions = real.regions,
                    .notifications = real.notifications,
                    .preferences = real.preferences,
                    .propertyLists = real.propertyLists,
                    .capabilities = real.capabilities,
                    .log = log,
                    .counters = real.counters,
                    .processes = real.processes,
                    .host = real.host,
                    .files = real.files,
                    .libraries = real.libraries,
                    .json = real.json,
                    .random = real.random,
                    .renderServer = real.renderServer,
                    .lifecycle = real.lifecycle,
                    .state = real.state,
                    .powerLog = real.powerLog,
                    .signposts = real.signposts,
                    .console = console,
                    .systemInformation = real.systemInformation,
                    .processMemory = real.processMemory,
                    .kernelMemory = real.kernelMemory};
}

}  // namespace quorvix::ctl
