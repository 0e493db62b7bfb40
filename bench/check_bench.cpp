// One check of 1000 watched processes with 20 slots each, nothing hanging: against one acquire load a slot over the
// same mappings. Before that it is proved that a check allocates nothing and makes no system call.

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "bench/AllocationCount.h"
#include "bench/Bench.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "platform/linux/SharedMemory.h"
#include "platform/quorvix_channel.h"
#include "platform/quorvix_ticks.h"
#include "platform/sim/SimPlatform.h"
#include "service/ServiceState.h"

using namespace quorvix;
using namespace quorvix::bench;

namespace {

constexpr std::int32_t kProcesses = 1000;
constexpr std::uint32_t kSlots = QUORVIX_CHANNEL_MINIMUM_SLOTS;
constexpr int kRounds = 41;
constexpr int kChecks = 20;

constexpr int kDone = 0;

int sealedRegion() {
    const int memory = memfd_create("quorvix", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    require(memory >= 0 && ftruncate(memory, 4096) == 0, "memfd");
    require(fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) == 0, "seal");
    return memory;
}

// A thousand records over a thousand regions, made as the dispatcher makes them.
std::vector<quorvix_hang_channel*> watchProcesses(sim::SimPlatform& device, linuxos::MappedRegions& regions) {
    std::vector<quorvix_hang_channel*> channels;
    for (std::int32_t pid = 1; pid <= kProcesses; ++pid) {
        const int memory = sealedRegion();
        const SharedMemoryMapping mapping = regions.map(memory);
        close(memory);
        require(mapping.address != nullptr, "a region is mapped");
        auto* const channel = static_cast<quorvix_hang_channel*>(mapping.address);
        channel->version = QUORVIX_CHANNEL_VERSION;
        channel->slotCount = kSlots;
        device.processes.setExecutablePath(pid, "/usr/bin/app");
        require(QXProcessInfo::startWatchingPid(pid, mapping.address, mapping.length) != nullptr, "watched");
        channels.push_back(channel);
    }
    return channels;
}

void setSlots(const std::vector<quorvix_hang_channel*>& channels, std::uint32_t inactive, std::uint64_t startTime) {
    for (quorvix_hang_channel* const channel : channels) {
        for (std::uint32_t i = 0; i < kSlots; ++i) {
            channel->slots[i].startTime = startTime;
            channel->slots[i].inactive = inactive;
        }
    }
}

[[gnu::noinline]] double checkNs(std::uint64_t now) {
    const double begin = nowNs();
    for (int i = 0; i < kChecks; ++i) QXProcessInfo::checkForHangTimeouts(now);
    return (nowNs() - begin) / kChecks;
}

[[gnu::noinline]] double acquireLoadsNs(const std::vector<quorvix_hang_channel*>& channels) {
    const double begin = nowNs();
    for (int i = 0; i < kChecks; ++i) {
        for (quorvix_hang_channel* const channel : channels) {
            for (std::uint32_t slot = 0; slot < kSlots; ++slot) {
                const std::uint32_t inactive =
                    std::atomic_ref(channel->slots[slot].inactive).load(std::memory_order_acquire);
                asm volatile("" : : "r"(inactive));
            }
        }
    }
    return (nowNs() - begin) / kChecks;
}

// From here on every system call but the process's end kills it.
void forbidSystemCalls() {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    require(
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0,
        "seccomp");
}

template <class Body>
int statusWithoutSystemCalls(Body body) {
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        forbidSystemCalls();
        body();
        syscall(SYS_exit_group, kDone);
    }
    int status = 0;
    require(waitpid(child, &status, 0) == child, "waitpid");
    return status;
}

void proveThatACheckIsFree(const char* name, std::uint64_t now) {
    // The filter itself works: a process that makes a system call does not survive it.
    const int caught = statusWithoutSystemCalls([] { syscall(SYS_getppid); });
    require(WIFSIGNALED(caught) && WTERMSIG(caught) == SIGSYS, "the filter catches a system call");
    const int status = statusWithoutSystemCalls([now] { QXProcessInfo::checkForHangTimeouts(now); });
    require(WIFEXITED(status) && WEXITSTATUS(status) == kDone, "a check makes no system call");
    const std::uint64_t before = allocationCount();
    QXProcessInfo::checkForHangTimeouts(now);
    require(before > 0 && allocationCount() == before, "a check allocates nothing");
    std::printf("%s: no allocation, no system call: ok\n", name);
}

void measure(const char* name, const std::vector<quorvix_hang_channel*>& channels, std::uint64_t now) {
    proveThatACheckIsFree(name, now);
    Comparison check(name, "us");
    for (int round = 0; round < kRounds; ++round) {
        const double floor = acquireLoadsNs(channels);
        check.add(checkNs(now) / 1000, floor / 1000);
    }
    check.print(Goal::atMost, 2.0);
}

}  // namespace

int main() {
    pinToOneCpu();
    auto& device = *new sim::SimPlatform;
    device.log.setEnabled(LogLevel::info, false);
    auto& regions = *new linuxos::MappedRegions;
    auto& platform = *new Platform{.tickClock = device.tickClock,
                                   .wallClock = device.wallClock,
                                   .queues = device.queues,
                                   .messages = device.messages,
                                   .regions = regions,
                                   .notifications = device.notifications,
                                   .preferences = device.preferences,
                                   .propertyLists = device.propertyLists,
                                   .capabilities = device.capabilities,
                                   .log = device.log,
                                   .counters = device.counters,
                                   .processes = device.processes,
                                   .host = device.host,
                                   .files = device.files,
                                   .libraries = device.libraries,
                                   .json = device.json,
                                   .random = device.random,
                                   .renderServer = device.renderServer,
                                   .lifecycle = device.lifecycle,
                                   .state = device.state,
                                   .powerLog = device.powerLog,
                                   .signposts = device.signposts,
                                   .console = device.console,
                                   .systemInformation = device.systemInformation,
                                   .processMemory = device.processMemory,
                                   .kernelMemory = device.kernelMemory};
    setPlatform(&platform);
    serviceState().msPerTick =
        QUORVIX_TICK_RATIO_NUMERATOR * 1e-6 / static_cast<double>(QUORVIX_TICK_RATIO_DENOMINATOR);

    // What a recorded hang needs.
    serviceState().daemonQueue = device.queues.makeSerialQueue("bench", QualityOfService::userInitiated);

    const std::vector<quorvix_hang_channel*> channels = watchProcesses(device, regions);
    const std::uint64_t now = std::uint64_t{3600} * QUORVIX_TICKS_PER_SECOND;
    setSlots(channels, 1, 0);
    measure("check of 1000 x 20 slots, all inactive", channels, now);
    setSlots(channels, 0, now - QUORVIX_TICKS_PER_SECOND);
    measure("check of 1000 x 20 slots, all at work for a second", channels, now);

    // The same walk does find a hang, or it would be no check.
    channels.back()->slots[kSlots - 1].startTime = now - 6 * std::uint64_t{QUORVIX_TICKS_PER_SECOND};
    QXProcessInfo::checkForHangTimeouts(now);
    require(channels.back()->slots[kSlots - 1].startTime == QUORVIX_CHANNEL_REPORTED, "the last slot's hang is found");
    QXProcessInfo::stopWatchingAllPids();
}
