// What happens to the device and to the daemon itself.

#include <algorithm>
#include <cerrno>

#include "simulate/Actions.h"
#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

using namespace std::chrono_literals;

// Central European rules in miniature: an hour more from day 88 to day 301 of each 365.
std::chrono::seconds summerTime(WallTime time) {
    const auto day = std::chrono::floor<std::chrono::days>(time).time_since_epoch().count() % 365;
    return day >= 88 && day < 301 ? 2h : 1h;
}
// The hour is put forward at local midnight, so that one day a year has none.
std::chrono::seconds midnightRule(WallTime time) {
    const auto local = time.time_since_epoch() - 4h;
    const auto day = std::chrono::floor<std::chrono::days>(local).count() % 365;
    return day >= 20 && day < 200 ? -3h : -4h;
}

}  // namespace

std::chrono::milliseconds Fleet::delay(Dice& dice) {
    return dice.oneIn(4) ? std::chrono::milliseconds(dice.oneOf<int>({1, 700, 5000, 90'000})) : 0ms;
}

void Fleet::post(Dice& dice) {
    const auto name =
        dice.oneOf<std::string_view>({"com.norvane.da.tasking_changed", "com.norvane.Provisia.profileListChanged",
                                      "com.norvane.quorvix.pref_changed"});
    world_.post(name, delay(dice));
}

void Fleet::preference(Dice& dice) {
    const auto set = [&](const char* key, std::optional<PropertyListValue> value) {
        world_.setPreference("com.norvane.da", key, std::move(value));
    };
    switch (dice.below(12)) {
        case 0: set("QuorvixEnabled", !dice.oneIn(5) || kept_ == Source::hang); break;
        case 1:
            set("QuorvixReportPeriod",
                dice.oneOf<PropertyListValue>({60, 60, 600, 3600, 14400, 0.5, 0, -5, 1e30, "text", true}));
            break;
        case 2:
        case 3:
            set("QuorvixDailyLogLimit", dice.oneOf<PropertyListValue>({25, 10, 3, 0, -4, 1000, 1000, 1000, 1000,
                                                                       std::int64_t{0x7FFFFFFF}, 12.9, "no"}));
            break;
        case 4:
            set("QuorvixEnableSwivex", dice.oneIn(4) ? std::nullopt : std::optional<PropertyListValue>(!dice.oneIn(4)));
            break;
        case 5: set("QuorvixEnableHUD", dice.oneOf<PropertyListValue>({true, true, false, "no"})); break;
        case 6: set("QuorvixEnableMemoryLogging", dice.oneIn(2) || kept_ == Source::memory); break;
        case 7:
            set("QuorvixMemoryLoggingInterval", dice.oneOf<PropertyListValue>({600, 3600, 7200, 86400, "text"}));
            break;
        case 8: {
            auto value = dice.oneOf<PropertyListValue>({true, true, 1, 0.0, "yes", false});
            if (kept_ == Source::activation) value = true;
            world_.setPreference("com.norvane.quorvix", "QuorvixEnableAppActivationLogging", std::move(value));
            break;
        }
        case 9:
            set("QuorvixAppActivationLoggingMaxActivationCount",
                dice.oneOf<PropertyListValue>({200, 0, 5, 40, 100000, -1}));
            break;
        case 10:
            set("QuorvixAppActivationLoggingCPUUtilizationThreshold",
                dice.oneOf<PropertyListValue>({50, 0, -3.0, 0.5, 1000.0}));
            break;
        default: break;  // posted without a change
    }
    if (!world_.running()) {
        // Somebody wants it back.
        set("QuorvixEnabled", true);
        world_.setProfile(std::nullopt);
        return startDaemon(dice);
    }
    if (!dice.oneIn(8)) post(dice);
}

void Fleet::profile(Dice& dice) {
    if (dice.oneIn(3)) {
        world_.setProfile(std::nullopt);
    } else {
        PropertyListDictionary profile;
        if (dice.oneIn(3))
            profile.emplace("QXProfile.QuorvixEnabled",
                            dice.oneOf<PropertyListValue>({true, 1, "no", kept_ == Source::hang}));
        if (dice.oneIn(3)) profile.emplace("QXProfile.QuorvixReportPeriod", dice.oneOf<PropertyListValue>({600, 7200}));
        if (dice.oneIn(3)) profile.emplace("QXProfile.QuorvixDailyLogLimit", dice.oneOf<PropertyListValue>({5, 50}));
        if (dice.oneIn(3)) profile.emplace("QXProfile.QuorvixEnableSwivex", !dice.oneIn(4));
        world_.setProfile(std::move(profile));
    }
    if (world_.running()) post(dice);
}

void Fleet::clock(Dice& dice) {
    const auto step = dice.oneIn(2) ? std::chrono::milliseconds(dice.between(-90'000, 90'000))
                                    : std::chrono::milliseconds(dice.between(-100, 100) * 3'600'000);
    world_.setWallClock(world_.device.scheduler.wallNow() + step);
}

void Fleet::zone(Dice& dice) {
    switch (dice.below(4)) {
        case 0: return world_.setZone(summerTime);
        case 1: return world_.setZone(midnightRule);
        default: {
            const std::chrono::seconds offset(dice.oneOf<std::int64_t>({0, -28800, 20700, 46800, -43200}));
            return world_.setZone([offset](WallTime) { return offset; });
        }
    }
}

void Fleet::pressure(Dice& dice) {
    auto& device = world_.device;
    vm_statistics64& host = device.host.statistics;
    const auto small = [&] { return static_cast<std::uint32_t>(dice.below(1'000'000)); };
    host.free_count = small() + 1'000'000;
    host.speculative_count = small();
    host.active_count = small();
    host.inactive_count = small();
    host.wire_count = small();
    host.compressor_page_count = small();
    host.faults += small();
    host.pageins += small();
    host.pageouts += small();
    host.compressions += small();
    for (auto& process : device.processMemory.processes) {
        process.priority = static_cast<std::int32_t>(dice.between(-1000, 1000));
        process.state = static_cast<std::uint32_t>(dice.oneOf<int>({0, 0x8, 0x28, 0x20}));
        process.footprintBytes = dice.below(1 << 30);
        process.assertions = dice.oneIn(3) ? dice.word() & dice.word() : 0;
    }
}

void Fleet::processes(Dice& dice) {
    auto& tasks = world_.device.processes.tasks;
    // Differences on both sides of the thresholds that preferences choose, at 24 MHz: 0.5, 1, 50 and 1000 ms.
    const auto ticks = [&]() -> std::uint64_t {
        switch (dice.below(6)) {
            case 0: return 0;
            case 1: return dice.oneOf<std::uint64_t>({23'999, 24'000, 1'199'999, 1'200'000, 24'000'000});
            case 2: return dice.oneOf<std::uint64_t>({12'000, 47'999, 48'000, 1'223'999, 1'224'000, 24'024'000});
            case 3: return dice.below(100'000'000);
            default: return dice.below(3'000'000);
        }
    };
    for (auto& task : tasks) {
        if (dice.oneIn(4)) continue;
        // The order of the figures is over their low halves and wraps: they stay near enough to have one.
        constexpr std::uint64_t kMost = 1'500'000'000;
        if (dice.oneIn(30) || (task.usage.userTime & UINT32_MAX) > kMost) task.usage = {};  // a new process
        task.usageFails = dice.oneIn(40);
        if (dice.oneIn(20)) task.name = dice.oneIn(2) ? "" : dice.oneIn(3) ? "vexproxy" : print("app%d", task.pid);
        task.usage.userTime += ticks();
        task.usage.systemTime += dice.below(1'000'000);
        task.usage.legacyTime += ticks();
        task.usage.userInteractiveTime += dice.below(1'000'000);
        task.usage.userInitiatedTime += dice.below(1'000'000);
        task.usage.utilityTime += dice.below(1'000'000);
        task.usage.maintenanceTime += dice.below(1'000'000);
        task.usage.backgroundTime += dice.below(1'000'000);
        task.usage.unspecifiedTime += dice.below(1'000'000);
        task.usage.diskBytesRead += dice.below(10'000'000);
        task.usage.diskBytesWritten += dice.below(10'000'000);
        task.usage.pageIns += dice.below(1000);
    }
    // Processes that nobody watches come and go, with pids below and above those of all clients.
    constexpr std::int32_t kFirst = 500, kLast = 31'000;
    const auto passing = [](const auto& task) { return task.pid >= kFirst && task.pid < 1000; };
    const auto oldest =
        std::ranges::find_if(tasks, [&](const auto& task) { return passing(task) || task.pid > 30'000; });
    if (oldest != tasks.end() && dice.oneIn(3)) tasks.erase(oldest);
    if (tasks.size() < 24 && dice.oneIn(2)) {
        const auto pid =
            static_cast<std::int32_t>(dice.oneIn(8) ? dice.between(30'001, kLast) : dice.between(kFirst, 999));
        if (std::ranges::any_of(tasks, [&](const auto& task) { return task.pid == pid; })) return;
        auto& task = tasks.emplace_back();
        task.pid = pid;
        task.name = print("passing%d", pid);
        task.usage.userTime = dice.oneOf<std::uint64_t>({0, 1'300'000, std::uint64_t{1} << 32});
    }
}

void Fleet::fault(Dice& dice) {
    // Rare: the daemon does without for the rest of its life, and less is seen of everything else.
    enum : unsigned { kFails = 1, kShort = 2, kSlow = 4, kRare = 8 };
    struct Kind {
        Op op;
        unsigned ways;
    };
    // What each call can do beyond going well; the table in docs/simulation.md says what is not here, and why.
    static constexpr Kind kKinds[] = {{Op::createFile, kFails | kSlow},
                                      {Op::unlinkFile, kFails | kSlow},
                                      {Op::moveFile, kFails | kSlow},
                                      {Op::createNewFile, kFails | kSlow},
                                      {Op::writeFile, kFails | kShort | kSlow},
                                      {Op::closeChecked, kFails | kSlow},
                                      {Op::replaceFile, kFails | kSlow},
                                      {Op::statusPath, kFails},
                                      {Op::makeDirectory, kFails},
                                      {Op::dump, kFails | kShort | kSlow},
                                      {Op::dump, kFails | kShort | kSlow},
                                      {Op::dump, kFails | kShort | kSlow},
                                      {Op::libraryOpen, kFails | kRare},
                                      {Op::dumpFunction, kFails | kRare},
                                      {Op::serialise, kFails | kSlow},
                                      {Op::makeText, kFails | kSlow},
                                      {Op::readProfile, kFails | kSlow},
                                      {Op::readPreference, kFails | kSlow},
                                      {Op::readPreference, kFails | kSlow},
                                      {Op::synchronise, kFails | kSlow},
                                      {Op::capability, kFails | kRare},
                                      {Op::makeListener, kFails | kRare},
                                      {Op::registerHandler, kFails | kShort | kRare},
                                      {Op::regionMap, kFails},
                                      {Op::regionFault, kFails},
                                      {Op::executablePath, kFails | kSlow},
                                      {Op::listPids, kFails | kShort | kSlow},
                                      {Op::resourceUsage, kFails | kSlow},
                                      {Op::processName, kFails | kSlow},
                                      {Op::hostStatistics, kFails | kSlow},
                                      {Op::bootTime, kFails | kSlow},
                                      {Op::priorityList, kFails | kSlow},
                                      {Op::memoryPath, kFails | kSlow},
                                      {Op::footprint, kFails | kSlow},
                                      {Op::assertions, kFails},
                                      {Op::systemVersion, kFails},
                                      {Op::kernelMemory, kFails},
                                      {Op::extensions, kFails},
                                      {Op::symbolResolver, kFails},
                                      {Op::hudPort, kFails},
                                      {Op::hudMessage, kSlow},
                                      {Op::powerEvent, kSlow},
                                      {Op::logLine, kSlow}};
    Kind kind{};
    do kind = kKinds[dice.below(std::size(kKinds))];
    while ((kind.ways & kRare) && !dice.oneIn(8));
    unsigned way = 0;
    do way = 1u << dice.below(3);
    while (!(kind.ways & way));
    const int error = dice.oneOf<int>({EIO, ENOSPC, EACCES, ENOMEM, EMFILE});
    const auto slow = std::chrono::milliseconds(dice.oneOf<int>({1, 50, 700, 4000, 12000}));
    Fault fault;
    if (way == kFails) fault.error = ErrorCode{error};
    if (way == kShort) fault.isShort = true;
    if (way == kSlow) fault.slow = slow;
    const auto spared = static_cast<std::uint32_t>(dice.below(4));
    if (kind.op == Op::regionMap) {
        return world_.device.regions.callFaults().failNth("map", spared + 1, fault.error);
    }
    world_.faults.arm(kind.op, spared, fault);
}

void Fleet::late(Dice& dice) {
    using Use = sim::SimScheduler::LeewayUse;
    if (dice.oneIn(3)) return world_.setLeewayUse(dice.oneOf<Use>({Use::none, Use::full, Use::varied}), dice.word());
    // Beyond the leeway of the hang check, beyond the time-out of an activation.
    world_.holdWakeUps(std::chrono::milliseconds(dice.oneOf<int>({1, 50, 900, 1100, 6000, 61'000, 400'000})));
}

void Fleet::startDaemon(Dice& dice) {
    forgetConnections();
    // Something in the way of a folder; after the first start only, for it may stay for the rest of the process.
    if (world_.starts > 0 && dice.oneIn(4)) {
        world_.device.files.addFile(dice.oneOf<std::string_view>({kCaches, kTmp, kSpool, kTmp, kSpool}), "in the way");
        if (dice.oneIn(3)) world_.faults.arm(Op::unlinkPath, 0, {.error = ErrorCode{EACCES}});
    }
    world_.start();
    if (!world_.running()) return;
    for (Client& client : clients_) {
        if (client.alive() && !dice.oneIn(4)) {
            connect(client);
            if (client.region.real) {
                world_.send(*client.connection, Message().number("command", 2));
                world_.send(*client.connection, Message().number("command", 1).memory("shmem", client.region));
            }
        }
    }
}

void Fleet::forgetConnections() {
    for (Client& client : clients_) {
        client.connection.reset();
        client.second.reset();
    }
}

void Fleet::restart(Dice& dice) {
    if (world_.running() && (restartOneIn_ == 0 || !dice.oneIn(restartOneIn_))) return;
    if (dice.oneIn(2)) {
        world_.terminate();
    } else {
        world_.kill();
    }
    forgetConnections();
    if (dice.oneIn(2)) {
        // Another build of the system.
        world_.setInternalBuild(dice.oneIn(2));
        world_.device.renderServer.setPort(dice.oneIn(3) ? 7 : 0);
        world_.setSignposts(!dice.oneIn(4));
        world_.debugLines = dice.oneIn(4);
    }
    startDaemon(dice);
}

void Fleet::listener(Dice& dice) {
    // A pid that is watched is not watched any more then.
    const std::int32_t pid = dice.oneIn(3) ? 0 : pick(dice).pid;
    if (dice.oneIn(restartOneIn_ == 1 ? 4 : 32)) {
        // The last that the listener hears. Somebody notices, and starts the daemon again.
        world_.listenerError(MessageEventKind::errorConnectionInvalid, "some error", pid);
        world_.after(std::chrono::seconds(dice.between(0, 600)), [this, later = Dice(dice.word())]() mutable {
            world_.kill();
            startDaemon(later);
        });
        return;
    }
    const auto kind = dice.oneOf<MessageEventKind>({MessageEventKind::errorConnectionInterrupted,
                                                    MessageEventKind::errorTerminationImminent,
                                                    MessageEventKind::errorOther, MessageEventKind::other});
    world_.listenerError(kind, "some error", pid);
}

}  // namespace quorvix::simulate
