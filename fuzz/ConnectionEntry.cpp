#include "fuzz/ConnectionEntry.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "activation/ActivationState.h"
#include "activation/AppActivationTracker.h"
#include "hang/HangState.h"
#include "hang/QXProcessInfo.h"
#include "perfstats/PerfState.h"
#include "platform/linux/QueueService.h"
#include "platform/linux/SocketConnection.h"
#include "platform/sim/SimPlatform.h"
#include "platform/swivex.h"
#include "service/MessageHandlers.h"
#include "service/Service.h"
#include "service/ServiceState.h"
#include "tests/support/MessageSocket.h"

namespace quorvix::fuzz {

namespace {

using linuxos::Descriptor;
using linuxos::MessageEncoder;

constexpr std::size_t kClients = 2;
constexpr std::size_t kMostSteps = 48;

void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "connection: %s\n", what);
    std::abort();
}

// Takes numbers and texts off the input; behind its end all are 0 and empty.
class Input {
public:
    explicit Input(std::string_view bytes) : bytes_(bytes) {}

    template <class Number>
    Number number() {
        Number value{};
        const std::string_view part = text(sizeof value);
        std::memcpy(&value, part.data(), part.size());
        return value;
    }
    std::string_view text(std::size_t length) {
        const std::string_view part = bytes_.substr(0, length);
        bytes_.remove_prefix(part.size());
        return part;
    }
    bool atEnd() const { return bytes_.empty(); }

private:
    std::string_view bytes_;
};

bool writeTrace(int file, const swivex_options*) { return ::write(file, "trace", 5) == 5; }

// A device with all that can be switched on, whose memory mappings are the real ones.
class World {
public:
    World() {
        setPlatform(&services_);
        resetServiceState();
        resetHangState();
        resetActivationState();
        resetPerfState();
        static const char* key = "key";
        device_.libraries.setLibrary("/usr/lib/libswivex.dylib",
                                     {{"swivex_dump_output_with_options_sync", reinterpret_cast<void*>(&writeTrace)},
                                      {"SWXDumpOptions_ReasonString", &key},
                                      {"SWXDumpOptions_NoSymbolicate", &key},
                                      {"SWXDumpOptions_MinTimestamp", &key},
                                      {"SWXDumpOptions_MaxTimestamp", &key}});
        device_.files.addDirectory("/var/root/Library/Caches");
        const PreferenceDomain daemon{"com.norvane.da", "mobile"};
        device_.preferences.change("QuorvixEnabled", true, daemon);
        device_.preferences.change("QuorvixEnableSwivex", true, daemon);
        device_.preferences.change("QuorvixEnableHUD", true, daemon);
        device_.preferences.change("QuorvixEnableAppActivationLogging", true, {"com.norvane.quorvix", "mobile"});
        registrations_.emplace(startService());
        device_.queues.giveMainThread();
        device_.scheduler.runPending();
    }
    ~World() {
        registrations_.reset();
        device_.scheduler.dropEverything();
        resetActivationState();
        resetPerfState();
        resetHangState();
        resetServiceState();
        setPlatform(nullptr);
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    sim::SimPlatform& device() { return device_; }
    linuxos::MappedRegions& regions() { return regions_; }
    void advance(std::chrono::seconds time) { device_.scheduler.advance(time); }

    void requireBounds() const {
        const HangState& state = hangState();
        std::set<std::int32_t> pids;
        for (const auto& process : state.watchedProcesses) {
            require(pids.insert(process->pid()).second, "a pid that is watched twice");
        }
        for (const auto& [app, credits] : state.appCredits) {
            require(credits < QXProcessInfo::kFullAppCredits, "credits past their bounds");
        }
        require(state.dailyLogCredits <= state.maxDailyLogs, "more reports a day than there are");
        require(state.faultedProcesses.empty(), "a process that faulted and was not dropped");
    }
    // For whoever looks into a finding.
    void printLog() const {
        for (const auto& line : device_.log.lines()) std::fprintf(stderr, "%s\n", line.text.c_str());
    }
    void requireNothingLeft() {
        require(hangState().watchedProcesses.empty(), "a process that is watched without a connection");
        require(regions_.counters().mappings == 0, "a region that stays mapped");
        const auto& tracker = activationState().sharedInstance;
        require(!tracker || tracker->counters().openActivations == 0, "an activation that stays open");
        require(perfState().memory.usedBytes() == 0, "a snapshot that is kept");
        require(device_.files.openFiles().empty(), "a file that stays open");
        const std::string caches = "/var/root/Library/Caches/quorvixd/";
        require(device_.files.list(caches + "tmp").empty(), "a report that is half there");
        for (const std::string& name : device_.files.list(caches + "spool")) {
            require(device_.files.read(caches + "spool/" + name).value_or("").ends_with("trace"),
                    "a report of nothing");
        }
    }

private:
    sim::SimPlatform device_{sim::SimTickClock::kMillisecondTicks};
    linuxos::MappedRegions regions_;
    Platform services_{.tickClock = device_.tickClock,
                       .wallClock = device_.wallClock,
                       .queues = device_.queues,
                       .messages = device_.messages,
                       .regions = regions_,
                       .notifications = device_.notifications,
                       .preferences = device_.preferences,
                       .propertyLists = device_.propertyLists,
                       .capabilities = device_.capabilities,
                       .log = device_.log,
                       .counters = device_.counters,
                       .processes = device_.processes,
                       .host = device_.host,
                       .files = device_.files,
                       .libraries = device_.libraries,
                       .json = device_.json,
                       .random = device_.random,
                       .renderServer = device_.renderServer,
                       .lifecycle = device_.lifecycle,
                       .state = device_.state,
                       .powerLog = device_.powerLog,
                       .signposts = device_.signposts,
                       .console = device_.console,
                       .systemInformation = device_.systemInformation,
                       .processMemory = device_.processMemory,
                       .kernelMemory = device_.kernelMemory};
    std::optional<ServiceRegistrations> registrations_;
};

// The queue that reads the sockets has a thread of its own; the simulated device has none. So each step waits for what
// it sets off, and one of the two is at work at a time.
class Reader {
public:
    Reader() { service_.start(); }

    std::shared_ptr<linuxos::LinuxWorkQueue> queue() {
        return linuxos::LinuxWorkQueue::from(*queue_).shared_from_this();
    }
    void noteEvent() {
        const std::lock_guard lock(mutex_);
        ++events_;
        changed_.notify_all();
    }
    std::uint64_t events() {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    void waitForEventAfter(std::uint64_t before) {
        std::unique_lock lock(mutex_);
        require(changed_.wait_for(lock, std::chrono::seconds(8), [&] { return events_ > before; }),
                "a datagram that nobody handles");
    }
    // Until the queue has done with what it was at.
    void finishTurn() {
        const std::uint64_t before = events();
        queue_->async([this] { noteEvent(); });
        waitForEventAfter(before);
    }

private:
    linuxos::LinuxQueueService service_;
    std::shared_ptr<WorkQueue> queue_ = service_.makeSerialQueue("fuzz", QualityOfService::standard);
    std::mutex mutex_;
    std::condition_variable changed_;
    std::uint64_t events_ = 0;
};

Reader& reader() {
    static Reader made;
    return made;
}

// One client: its socket, and the memory that it sent last.
class Client {
public:
    Client(World& world, std::shared_ptr<linuxos::ConnectionTable> table, std::int32_t pid)
        : world_(world), table_(std::move(table)), pid_(pid) {}
    ~Client() { close(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void connect() {
        close();
        std::array<int, 2> ends{-1, -1};
        require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) == 0, "no socket pair");
        socket_.reset(ends[0]);
        Descriptor daemonsEnd(ends[1]);
        const int on = 1;
        setsockopt(daemonsEnd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
        require(table_->admit(1000), "no place in an empty table");
        // This process stands for the client's, which lives as long as the connection.
        Descriptor process(pid_ > 0 ? static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0)) : -1);
        auto connection = std::make_shared<linuxos::SocketConnection>(
            table_, world_.regions(), std::move(daemonsEnd),
            linuxos::Peer{.pid = pid_, .user = 1000, .process = std::move(process)}, reader().queue());
        connection->setEventHandler([connection](const MessageEvent& event) {
            handleConnectionEvent(connection, event);
            reader().noteEvent();
        });
        connection->resume();
        reader().finishTurn();
    }
    void close() {
        if (!socket_) return;
        const std::uint64_t before = reader().events();
        socket_.reset();
        reader().waitForEventAfter(before);
        reader().finishTurn();
        settle();
    }
    // `kinds` has three bits a descriptor; what is past the most that a datagram may carry is sent all the same.
    void send(std::span<const std::uint8_t> datagram, std::size_t count, std::uint16_t kinds, Input& input) {
        if (!socket_) connect();
        std::vector<Descriptor> descriptors;
        std::vector<int> numbers;
        for (std::size_t index = 0; index < count; ++index, kinds = static_cast<std::uint16_t>(kinds >> 3)) {
            descriptors.push_back(makeDescriptor(kinds & 7, input));
            numbers.push_back(descriptors.back().get());
        }
        const std::uint64_t before = reader().events();
        if (!tests::sendDatagram(socket_.get(), datagram, numbers, 0)) return;
        reader().waitForEventAfter(before);
        settle();
    }
    // What a client may do to its memory at any time.
    void scribble(std::uint16_t place, std::string_view bytes) {
        if (memory_) static_cast<void>(::pwrite(memory_.get(), bytes.data(), bytes.size(), place));
    }

private:
    void settle() {
        world_.device().scheduler.runPending();
        world_.requireBounds();
    }
    Descriptor makeDescriptor(unsigned kind, Input& input) {
        switch (kind) {
            case 1: return tests::makeMemory(2088, 0);
            case 2: return tests::makeMemory(input.number<std::uint16_t>());
            case 3: return Descriptor(::open("/dev/null", O_RDWR | O_CLOEXEC));
            case 4: return tests::makeMemory(2088, F_SEAL_SHRINK | F_SEAL_WRITE);
            case 5: return Descriptor(::dup(socket_.get()));
            default: break;
        }
        // A hang channel, of any bytes.
        Descriptor memory = tests::makeMemory(2088 + 104 * (kind == 0 ? 0 : 100));
        const std::array<std::uint32_t, 2> head{4, 20};
        static_cast<void>(::pwrite(memory.get(), head.data(), sizeof head, 0));
        const std::string_view content = input.text(input.number<std::uint8_t>());
        static_cast<void>(::pwrite(memory.get(), content.data(), content.size(), 4));
        memory_.reset(::dup(memory.get()));
        return memory;
    }

    World& world_;
    std::shared_ptr<linuxos::ConnectionTable> table_;
    const std::int32_t pid_;
    Descriptor socket_;
    Descriptor memory_;
};

// A message as a client means it, with every value that a command may look at.
MessageEncoder commandOf(Input& input, std::size_t descriptors) {
    MessageEncoder message;
    message.int64("command", input.number<std::uint8_t>() % 10);
    const auto start = input.number<std::uint32_t>();
    const auto end = input.number<std::uint32_t>();
    const auto flags = input.number<std::uint8_t>();
    const auto pid = input.number<std::int32_t>();
    const std::string_view name = input.text(input.number<std::uint8_t>());
    const bool isFence = (flags & 1) != 0;
    const bool isActivation = (flags & 2) != 0;
    if (isFence) {
        message.int64("name", pid);
    } else {
        message.string("name", name);
    }
    message.int64("pid", pid).string("bundle-id", name).boolean("saveReport", (flags & 4) != 0);
    if (isActivation) {
        message.uint64("startTime", start).uint64("endTime", end).uint64("vexStartLatency", end);
    } else {
        message.int64("startTime", static_cast<std::int64_t>(start) - ((flags & 8) != 0 ? end : 0));
        message.int64("endTime", end);
    }
    message.int64("threadID", pid).int64("app-activation-state", flags >> 6);
    message.int64("app-activation-type", (flags >> 4) & 3).int64("app-activation-result", (flags >> 4) & 3);
    for (std::uint8_t index = 0; index < descriptors; ++index) {
        message.sharedMemory(index == 0 ? "shmem" : "shmem" + std::to_string(index), index);
    }
    return message;
}

}  // namespace

// A step's byte: the low three bits say what it is, the next which client, the other four are its own.
bool connectionHolds(std::string_view bytes) {
    if (bytes.empty()) return false;
    reader();
    World world;
    Input input(bytes);
    const std::int32_t pid = std::array{412, 1, 0, -1}[input.number<std::uint8_t>() % 4];
    auto table = std::make_shared<linuxos::ConnectionTable>(world.device().log, linuxos::ConnectionTable::Limits{});
    world.device().processes.setExecutablePath(pid, "/Applications/Mail.app/Mail");
    world.device().processes.setExecutablePath(pid + 1, "/opt/../\x1b[2J/");
    {
        Client first(world, table, pid);
        Client second(world, table, pid + 1);
        const std::array<Client*, kClients> clients{&first, &second};
        for (std::size_t steps = 0; steps < kMostSteps && !input.atEnd(); ++steps) {
            const auto step = input.number<std::uint8_t>();
            Client& client = *clients[(step >> 3) & 1];
            const std::size_t own = step >> 4;
            switch (step & 7) {
                case 0: {
                    const auto kinds = input.number<std::uint16_t>();
                    const std::string_view datagram = input.text(input.number<std::uint16_t>());
                    client.send({reinterpret_cast<const std::uint8_t*>(datagram.data()), datagram.size()}, own % 8,
                                kinds, input);
                    break;
                }
                case 1:
                case 2:
                case 3: {
                    const auto kinds = input.number<std::uint16_t>();
                    const MessageEncoder message = commandOf(input, own % 5);
                    client.send(message.bytes(), own % 5, kinds, input);
                    break;
                }
                case 4: world.advance(std::chrono::seconds(5 * own)); break;
                case 5: {
                    const auto place = input.number<std::uint16_t>();
                    client.scribble(place, input.text(own * 8));
                    break;
                }
                case 6: client.close(); break;
                default: client.connect(); break;
            }
            world.requireBounds();
        }
    }
    if (std::getenv("QUORVIX_FUZZ_LOG")) world.printLog();
    const bool anyMessage = table->counters().messages != 0;
    // A delayed fence capture keeps its process that long.
    world.advance(std::chrono::minutes(2));
    world.requireNothingLeft();
    return anyMessage;
}

}  // namespace quorvix::fuzz
