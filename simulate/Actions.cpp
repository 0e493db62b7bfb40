#include "simulate/Actions.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "simulate/Text.h"

namespace quorvix::simulate {

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kKindNames[] = {
    "start",    "watch",     "stop",  "work",       "rest",    "hang",    "fence",   "activation", "burst",
    "garbage",  "death",     "lie",   "preference", "profile", "clock",   "zone",    "suspend",    "unlock",
    "pressure", "processes", "fault", "late",       "library", "restart", "listener"};
static_assert(std::size(kKindNames) == static_cast<std::size_t>(ActionKind::count));
// How often each happens, of the sum of all.
constexpr std::array<unsigned, std::size(kKindNames)> kWeights = {30, 40, 15, 160, 90, 60, 60, 110, 1, 10, 14, 6, 12,
                                                                  4,  5,  4,  5,   3,  10, 60, 30,  8, 2,  2,  2};

constexpr std::string_view kPaths[] = {"/Applications/Mail.app/Mail",
                                       "/Applications/Maps.app/Maps",
                                       "/Applications/Mail.app/Mail",
                                       "/usr/libexec/a name of fourteen",
                                       "/opt/tab\there/line\nbreak",
                                       "/opt/caf\xC3\xA9/na\xC3\xAFve",
                                       "/opt/quote\"d/na\"me",
                                       "/opt/back\\slash",
                                       "Standalone",
                                       "/opt/%s%n/%@percent"};
constexpr std::string_view kWorkNames[] = {
    "main",       "main",       "main",
    "runloop",    "Fence-hang", "",
    "with/slash", "..",         "na\xC3\xAFve",
    "\xFF\xFE",   "quote\"",    "tab\tline\n",
    "\x01\x1F",   "%s%n%@",     "a name that is as long as the slot allows, sixty-four bytes  ...."};
constexpr std::string_view kBundles[] = {"com.example.mail", "com.example.maps", "com.example.a", "", "caf\xC3\xA9"};

template <std::size_t N>
std::string_view oneOf(const std::string_view (&choices)[N], Dice& dice) {
    return choices[dice.below(N)];
}

}  // namespace

std::string_view nameOf(ActionKind kind) { return kKindNames[static_cast<std::size_t>(kind)]; }

std::optional<ActionKind> kindNamed(std::string_view name) {
    const auto found = std::ranges::find(kKindNames, name);
    if (found == std::end(kKindNames)) return std::nullopt;
    return static_cast<ActionKind>(found - std::begin(kKindNames));
}

Action actionOf(std::uint64_t seed, std::uint64_t index) {
    Action action{.index = index, .dice = Dice::forked(seed, index + 1)};
    // Whole milliseconds: what the daemon makes of a fraction of one is no rule.
    const std::uint64_t length = action.dice.below(16);
    action.gap = length < 4    ? 0ms
                 : length < 6  ? std::chrono::milliseconds(action.dice.between(1, 999))
                 : length < 14 ? std::chrono::milliseconds(action.dice.between(1, 60'000))
                               : std::chrono::milliseconds(action.dice.between(1, 240'000));
    unsigned sum = 0;
    for (const unsigned weight : kWeights) sum += weight;
    auto drawn = static_cast<unsigned>(action.dice.below(sum));
    std::size_t kind = 0;
    while (drawn >= kWeights[kind]) drawn -= kWeights[kind++];
    action.kind = static_cast<ActionKind>(kind);
    return action;
}

Fleet::Fleet(World& world, std::uint64_t clients) : world_(world), clients_(clients) {}

void Fleet::setUp(Dice dice) {
    // Rules that need a day of one process are reached only where a run lets it live: of eight runs four restart it by
    // themselves never, two every few days, one daily, one many times a day.
    restartOneIn_ = dice.oneOf<std::uint64_t>({0, 0, 0, 0, 40, 24, 8, 1});
    kept_ = dice.oneOf<Source>(
        {Source::none, Source::hang, Source::memory, Source::memory, Source::activation, Source::activation});
    world_.debugLines = dice.oneIn(4);
    world_.setInternalBuild(dice.oneIn(2));
    world_.device.renderServer.setPort(dice.oneIn(3) ? 7 : 0);
    world_.setPreference("com.norvane.da", "QuorvixEnabled", true);
    world_.setPreference("com.norvane.da", "QuorvixEnableSwivex", true);
    world_.setPreference("com.norvane.quorvix", "QuorvixEnableAppActivationLogging", true);
    // A daemon that lives for days soon has no credits left where nobody gives it more.
    if (!dice.oneIn(3)) {
        world_.setPreference("com.norvane.da", "QuorvixReportPeriod", dice.oneOf<PropertyListValue>({60, 600, 3600}));
    }
    if (!dice.oneIn(3)) world_.setPreference("com.norvane.da", "QuorvixDailyLogLimit", 1000);
    if (dice.oneIn(2)) {
        world_.setPreference("com.norvane.da", "QuorvixAppActivationLoggingMaxActivationCount", 40);
    }
    world_.setPreference("com.norvane.da", "QuorvixEnableMemoryLogging", dice.oneIn(2) || kept_ == Source::memory);
    world_.setPreference("com.norvane.da", "QuorvixEnableHUD", dice.oneIn(2));
    auto& kernel = world_.device.kernelMemory;
    kernel.memory.zones = {{"kalloc.16", 409600}, {"vm objects", 4095}, {"empty", 0}};
    kernel.memory.sites = {{WiredSite::Kind::kernelTag, 1234, 4096},
                           {WiredSite::Kind::kernelExtension, 5, 8192},
                           {WiredSite::Kind::kernelExtension, 6, 1},
                           {WiredSite::Kind::kernelAddress, 0xFFFF800012345678, 77},
                           {WiredSite::Kind::kernelAddress, 0xFFFF800012340000, 78},
                           {WiredSite::Kind::counter, 3, 99},
                           {WiredSite::Kind::counter, 4, 0}};
    kernel.extensions = {{5, "com.norvane.driver"}};
    kernel.symbols[0xFFFF800012345678] = "_some_symbol";
    for (std::int32_t pid = 2; pid < 8; ++pid) {
        world_.device.processes.tasks.push_back({.pid = pid, .name = print("daemon%d", pid)});
        world_.device.processMemory.processes.push_back(
            {.pid = pid, .priority = pid, .path = print("/usr/sbin/daemon%d", pid), .footprintBytes = 1 << 20});
    }
    pressure(dice);
    startDaemon(dice);
}

void Fleet::apply(Action action) {
    Dice& dice = action.dice;
    if (!world_.running()) forgetConnections();
    // A daemon that is down comes back when a preference changes.
    if (!world_.running() && action.kind != ActionKind::preference && action.kind != ActionKind::restart) {
        switch (action.kind) {
            case ActionKind::profile: break;
            case ActionKind::clock: break;
            case ActionKind::pressure: break;
            case ActionKind::processes: break;
            default: return;
        }
    }
    switch (action.kind) {
        case ActionKind::start: {
            Client& client = pick(dice);
            if (!client.alive()) begin(client, dice);
            break;
        }
        case ActionKind::watch: watch(pickAlive(dice), dice); break;
        case ActionKind::stop: world_.send(pickAlive(dice).anyConnection(dice), Message().number("command", 2)); break;
        case ActionKind::work: work(pick(dice), dice); break;
        case ActionKind::rest: {
            Client& client = pick(dice);
            if (!client.region.real) break;
            const std::uint32_t inactive = 1;
            for (std::uint64_t slot = 0; slot < 3; ++slot) {
                client.region.write(8 + 104 * slot + 16, &inactive, sizeof inactive);
            }
            break;
        }
        case ActionKind::hang: hang(pickAlive(dice), dice); break;
        case ActionKind::fence: fence(pickAlive(dice), dice); break;
        case ActionKind::activation: activation(pickAlive(dice), dice); break;
        case ActionKind::burst: burst(pickAlive(dice), dice); break;
        case ActionKind::garbage: garbage(pickAlive(dice), dice); break;
        case ActionKind::death: death(pick(dice), dice); break;
        case ActionKind::lie: lie(pick(dice), dice); break;
        case ActionKind::preference: preference(dice); break;
        case ActionKind::profile: profile(dice); break;
        case ActionKind::clock: clock(dice); break;
        case ActionKind::zone: zone(dice); break;
        case ActionKind::suspend:
            // The monotonic clock stands while the device sleeps.
            world_.setWallClock(world_.device.scheduler.wallNow() + std::chrono::minutes(dice.between(1, 600)));
            break;
        case ActionKind::unlock: world_.post("com.norvane.mobile.sentinad.first_unlock", delay(dice)); break;
        case ActionKind::pressure: pressure(dice); break;
        case ActionKind::processes: processes(dice); break;
        case ActionKind::fault: fault(dice); break;
        case ActionKind::late: late(dice); break;
        case ActionKind::library: world_.setTraceLibrary(!dice.oneIn(3), !dice.oneIn(3)); break;
        case ActionKind::restart: restart(dice); break;
        case ActionKind::listener: listener(dice); break;
        case ActionKind::count: break;
    }
}

// --- clients -------------------------------------------------------------------------------------------------------

void Fleet::begin(Client& client, Dice& dice) {
    if (!freePids_.empty() && dice.oneIn(2)) {
        client.pid = freePids_.back();
        freePids_.pop_back();
    } else {
        client.pid = nextPid_++;
        if (nextPid_ > 30000) nextPid_ = 1000;
    }
    const std::string path(oneOf(kPaths, dice));
    world_.setPath(client.pid, path);
    world_.device.processes.tasks.push_back(
        {.pid = client.pid, .name = dice.oneIn(8) ? "" : print("app%d", client.pid)});
    world_.device.processMemory.processes.push_back(
        {.pid = client.pid, .priority = 0, .path = "/Applications/app", .footprintBytes = 5 << 20});
    connect(client);
}

void Fleet::connect(Client& client) { client.connection = world_.connect(client.pid); }

Fleet::Client& Fleet::pickAlive(Dice& dice) {
    Client& client = pick(dice);
    if (!client.alive()) begin(client, dice);
    if (!client.connection) connect(client);
    return client;
}

void Fleet::watch(Client& client, Dice& dice) {
    Message message;
    message.number("command", 1);
    if (!dice.oneIn(8)) message.text("name", "client");
    if (dice.oneIn(20)) {
        if (dice.oneIn(2)) message.text("shmem", "not memory");
        return world_.send(client.anyConnection(dice), std::move(message));
    }
    const bool good = !dice.oneIn(6);
    if (!client.region.real || dice.oneIn(8) || !good) {
        const std::uint64_t length = good ? dice.oneOf<std::uint64_t>({2088, 2088, 4096, 4168, 65536})
                                          : dice.oneOf<std::uint64_t>({0, 1, 3, 8, 2087, 4096, 2097152});
        const auto version = static_cast<std::uint32_t>(good ? 4 : dice.between(3, 5));
        client.region = world_.makeRegion(version, static_cast<std::uint32_t>(dice.oneOf<int>({20, 20, 3, 1})), length);
    }
    if (dice.oneIn(30)) world_.removePath(client.pid);
    message.memory("shmem", client.region);
    world_.send(client.anyConnection(dice), std::move(message));
}

void Fleet::work(Client& client, Dice& dice) {
    if (!client.region.real) return;
    const std::uint64_t slot = dice.below(3);
    const std::uint64_t offset = 8 + 104 * slot;
    const std::uint64_t now = world_.ticks();
    std::uint64_t start = now;
    if (dice.oneIn(6)) start = now - dice.below(300'000'000);
    if (dice.oneIn(40)) start = dice.oneOf<std::uint64_t>({0, 1, UINT64_MAX, UINT64_MAX - 1, UINT64_MAX / 2, now + 1});
    const std::uint32_t inactive = 0, save = dice.oneIn(4) ? 0 : 1;
    const std::uint64_t thread = dice.oneIn(10) ? dice.word() : 77;
    char name[64]{};
    const std::string_view text = oneOf(kWorkNames, dice);
    std::memcpy(name, text.data(), std::min(text.size(), sizeof name));
    client.region.write(offset, &start, sizeof start);
    client.region.write(offset + 20, &save, sizeof save);
    client.region.write(offset + 32, &thread, sizeof thread);
    client.region.write(offset + 40, name, sizeof name);
    client.region.write(offset + 16, &inactive, sizeof inactive);
}

void Fleet::hang(Client& client, Dice& dice) {
    const auto now = static_cast<std::int64_t>(world_.ticks());
    const std::int64_t start = now - dice.between(0, 500'000'000);
    Message message;
    message.number("command", 3).number("startTime", start).number("endTime", now).number("threadID", 9);
    if (dice.oneIn(12)) {
        message = Message();
        message.number("command", 3)
            .number("startTime", static_cast<std::int64_t>(dice.word()))
            .number("endTime", dice.oneOf<std::int64_t>({INT64_MIN, INT64_MAX, 0, -1, now}))
            .number("threadID", -1);
    }
    if (!dice.oneIn(10)) message.text("name", oneOf(kWorkNames, dice));
    if (!dice.oneIn(4)) message.flag("saveReport", true);
    world_.send(client.anyConnection(dice), std::move(message));
}

void Fleet::fence(Client& client, Dice& dice) {
    const auto now = static_cast<std::int64_t>(world_.ticks());
    const std::int64_t name = dice.between(0, 7);
    Message message;
    switch (dice.below(5)) {
        case 0:
        case 1: message.number("command", 6).number("name", name).number("startTime", now); break;
        case 2:
        case 3: message.number("command", 7).number("name", name).number("endTime", now); break;
        default: {
            message.number("command", 8).number("startTime", now - dice.between(0, 200'000'000)).number("endTime", now);
            // One more while the first one's capture waits.
            if (dice.oneIn(3)) world_.send(client.anyConnection(dice), Message(message));
        }
    }
    world_.send(client.anyConnection(dice), std::move(message));
}

void Fleet::activation(Client& client, Dice& dice) {
    if (dice.oneIn(4)) {
        const std::int64_t pid = dice.oneIn(4) ? dice.oneOf<std::int64_t>({0, -1, 70000, 0x100000005}) : client.pid;
        return endActivation(client, {pid, oneOf(kBundles, dice)}, dice);
    }
    const Begun begun = beginActivation(client, dice);
    if (dice.oneIn(3)) return;
    // A begin that nothing answers is given up after a minute.
    const auto answer =
        std::chrono::milliseconds(dice.oneIn(4) ? dice.between(59'000, 61'000) : dice.between(0, 90'000));
    const Client* const sender = dice.oneIn(4) ? nullptr : &client;
    world_.after(answer / 2, [this, dice]() mutable { processes(dice); });
    world_.after(answer, [this, begun, sender, pid = client.pid, later = Dice(dice.word())]() mutable {
        // The process that began it, or whoever there is.
        for (Client& each : clients_) {
            if (sender && (&each != sender || each.pid != pid)) continue;
            if (each.alive() && each.connection && world_.running()) return endActivation(each, begun, later);
        }
    });
}

// More than the default limit of a day, at times.
void Fleet::burst(Client& client, Dice& dice) {
    const std::int64_t length = dice.oneIn(2) ? dice.between(200, 220) : dice.between(2, 60);
    for (std::int64_t i = 0; i < length; ++i) endActivation(client, beginActivation(client, dice), dice);
}

Fleet::Begun Fleet::beginActivation(Client& client, Dice& dice) {
    const std::uint64_t now = world_.wallMilliseconds();
    const std::uint64_t late = dice.oneOf<std::uint64_t>({0, 20, 199, 200, 2000});
    const Begun begun{dice.oneIn(20) ? dice.oneOf<std::int64_t>({0, -1, 70000, 0x100000005}) : client.pid,
                      oneOf(kBundles, dice)};
    Message message;
    message.number("command", 4).number("pid", begun.pid);
    message.number("app-activation-state", dice.oneIn(8) ? dice.oneOf<std::int64_t>({0, 2, 257, -1}) : 1);
    message.number("app-activation-type", dice.oneOf<std::int64_t>({0, 1, 1, 2, 257}));
    if (!dice.oneIn(20)) message.text("bundle-id", begun.bundle);
    if (!dice.oneIn(10)) message.unsignedNumber("startTime", now - late);
    if (!dice.oneIn(10)) message.unsignedNumber("vexStartLatency", now - late + (dice.oneIn(20) ? 60000 : 0));
    world_.send(client.anyConnection(dice), std::move(message));
    return begun;
}

void Fleet::endActivation(Client& client, const Begun& begun, Dice& dice) {
    const std::uint64_t late = dice.oneOf<std::uint64_t>({0, 20, 199, 200, 2000});
    Message message;
    message.number("command", 5).number("pid", begun.pid);
    message.number("app-activation-state", dice.oneIn(8) ? dice.oneOf<std::int64_t>({0, 2, 257, -1}) : 1);
    message.number("app-activation-result", dice.oneOf<std::int64_t>({0, 1, 255, 256}));
    if (!dice.oneIn(20)) message.text("bundle-id", begun.bundle);
    if (!dice.oneIn(10)) message.unsignedNumber("endTime", world_.wallMilliseconds() - late);
    world_.send(client.anyConnection(dice), std::move(message));
}

void Fleet::garbage(Client& client, Dice& dice) {
    switch (dice.below(7)) {
        case 0:
            return world_.send(*client.connection, Message().number("command", dice.oneOf<std::int64_t>({0, 9, -1})));
        case 1: return world_.send(*client.connection, Message().unsignedNumber("command", 1));
        case 2: return world_.send(*client.connection, Message());
        case 3: return world_.sendOther(*client.connection, MessageEventKind::other, "<undecodable: header cut short>");
        case 4: return world_.sendOther(*client.connection, MessageEventKind::errorOther, {}, EIO);
        case 5: return world_.sendOther(*client.connection, MessageEventKind::errorConnectionInterrupted, {});
        default: {
            // Somebody whose pid the kernel could not tell.
            const Connection nobody = world_.connect(static_cast<std::int32_t>(dice.between(-1, 0)));
            world_.send(nobody, Message().number("command", dice.between(0, 9)));
            world_.die(nobody);
        }
    }
}

void Fleet::death(Client& client, Dice& dice) {
    if (!client.alive()) return;
    if (dice.oneIn(4) && client.connection) {
        // A second connection of the same process, or its end: the process is not watched any more.
        if (!client.second) {
            client.second = world_.connect(client.pid);
        } else {
            world_.die(*client.second);
            client.second.reset();
        }
        return;
    }
    if (client.connection) world_.die(*client.connection);
    client.connection.reset();
    if (client.second) world_.die(*client.second);
    client.second.reset();
    if (dice.oneIn(4)) return;  // the connection only
    world_.removePath(client.pid);
    std::erase_if(world_.device.processes.tasks, [&](const auto& task) { return task.pid == client.pid; });
    std::erase_if(world_.device.processMemory.processes, [&](const auto& one) { return one.pid == client.pid; });
    freePids_.push_back(client.pid);
    client.pid = 0;
    client.region = {};
    if (dice.oneIn(2)) begin(client, dice);
}

void Fleet::everyoneDies() {
    if (world_.model().listenerGone()) {
        // It would not hear of it.
        world_.kill();
        forgetConnections();
    }
    for (Client& client : clients_) {
        if (client.connection) world_.die(*client.connection);
        if (client.second) world_.die(*client.second);
        client = {};
    }
}

void Fleet::lie(Client& client, Dice& dice) {
    if (!client.region.real) return;
    const auto count = dice.oneOf<std::uint32_t>({0, 19, 21, 39, 40, 500, UINT32_MAX, 20});
    client.region.write(4, &count, sizeof count);
    if (dice.oneIn(3)) {
        const auto version = static_cast<std::uint32_t>(dice.between(3, 5));
        client.region.write(0, &version, sizeof version);
    }
}

}  // namespace quorvix::simulate
