// quorvixd: reads as the order of starting up. No command line and no environment decide anything; the preferences do.

#include "platform/linux/LinuxPlatform.h"
#include "service/Service.h"
#include "service/ServiceState.h"

int main() {
    // Never destroyed: the process ends while the queues' threads run.
    auto& platform = *new quorvix::linuxos::LinuxPlatform;
    quorvix::setPlatform(&platform.services());

    // Held for the whole process.
    [[maybe_unused]] const quorvix::ServiceRegistrations registrations = quorvix::startService();

    platform.announceTerminationOn(quorvix::serviceState().daemonQueue);
    platform.answerWatchdogOn(quorvix::serviceState().daemonQueue);
    platform.services().queues.runMain();
}
