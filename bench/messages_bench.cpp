// One-way messages of about 200 bytes: from a client to the daemon's dispatched command 2, against a bare loop of epoll
// and recvmsg with credentials; sender and receiver on one CPU.

#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "bench/Bench.h"
#include "bench/Buses.h"
#include "bench/Sender.h"
#include "platform/linux/MessageService.h"
#include "platform/linux/QueueService.h"
#include "platform/sim/SimPlatform.h"
#include "service/MessageHandlers.h"
#include "service/ServiceState.h"

using namespace quorvix;
using namespace quorvix::bench;

namespace {

constexpr int kRounds = 11;
constexpr std::uint32_t kMessages = 100'000;
constexpr std::uint32_t kBusMessages = 20'000;

// A receiver that is preferred wakes up for every single message, which then costs more than all code; one that comes
// last finds a full socket, and what counts then is the code alone. Both receivers always run alike.
struct Priority {
    const char* name;
    QualityOfService quality;
    int nice;
};
constexpr Priority kPriorities[] = {
    {"messages of 200 bytes", QualityOfService::standard, 0},
    {"messages of 200 bytes, receiver preferred as in the daemon", QualityOfService::userInitiated, -5},
    {"messages of 200 bytes, receiver last", QualityOfService::background, 15},
};

// One dictionary in its wire form (docs/message-protocol.md): command, and a text that fills it to the size.
std::string message(std::int64_t command) {
    const auto little = [](std::uint64_t value, int bytes) {
        std::string text;
        for (int i = 0; i < bytes; ++i) text.push_back(static_cast<char>(value >> (8 * i)));
        return text;
    };
    std::string text = "VEX1" + little(2, 2) + little(0, 2);
    text += little(1, 1) + little(7, 1) + "command" + little(static_cast<std::uint64_t>(command), 8);
    text += little(3, 1) + little(4, 1) + "name";
    const std::size_t rest = kPayloadBytes - text.size() - 4;
    return text + little(rest, 4) + std::string(rest, 'x');
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    require(path.size() < sizeof address.sun_path, "a short socket path");
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

// kMessages times command 2, then command 1 without a region: the daemon's line about it tells that all was handled.
void sendAll(const std::string& path) {
    const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(path);
    require(connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
    const std::string stopWatching = message(2);
    const std::string last = message(1);
    for (std::uint32_t i = 0; i < kMessages; ++i) {
        require(send(socket, stopWatching.data(), stopWatching.size(), MSG_NOSIGNAL) > 0, "send");
    }
    require(send(socket, last.data(), last.size(), MSG_NOSIGNAL) > 0, "send");
    close(socket);
}

// Keeps nothing; tells when the line of the last message comes.
class SignallingLog final : public SystemLog {
public:
    SignallingLog() { sem_init(&lastHandled_, 0, 0); }
    bool enabled(std::string_view, std::string_view, LogLevel level) noexcept override {
        return level == LogLevel::standard;
    }
    void write(std::string_view, std::string_view, LogLevel, std::string_view text) override {
        if (text.starts_with("Didn't get shmem")) sem_post(&lastHandled_);
    }
    void waitForLast() {
        timespec end{};
        clock_gettime(CLOCK_REALTIME, &end);
        end.tv_sec += 20;
        require(sem_timedwait(&lastHandled_, &end) == 0, "all messages are handled");
    }

private:
    sem_t lastHandled_;
};

// The daemon's message side as main puts it together, in a folder of its own.
class Receiver {
public:
    Receiver(const std::string& folder, QualityOfService quality) : folder_(folder) {
        setPlatform(&platform_);
        serviceState().daemonQueue = queues_.makeSerialQueue("bench", quality);
        listener_ = messages_.makeListener("bench", serviceState().daemonQueue);
        listener_->setEventHandler(handleListenerEvent);
        listener_->resume();
        queues_.start();
    }
    double rate(Sender& sender) {
        const double begin = nowNs();
        sender.start();
        log_.waitForLast();
        return kMessages / (nowNs() - begin) * 1e9;
    }

private:
    std::string folder_;
    SignallingLog log_;
    sim::SimPlatform device_;
    linuxos::LinuxQueueService queues_;
    linuxos::MappedRegions regions_;
    linuxos::LinuxMessageService messages_{log_, device_.lifecycle, regions_, {.runDirectory = folder_, .limits = {}}};
    Platform platform_{.tickClock = device_.tickClock,
                       .wallClock = device_.wallClock,
                       .queues = queues_,
                       .messages = messages_,
                       .regions = regions_,
                       .notifications = device_.notifications,
                       .preferences = device_.preferences,
                       .propertyLists = device_.propertyLists,
                       .capabilities = device_.capabilities,
                       .log = log_,
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
    std::shared_ptr<MessageListener> listener_;
};

// The least that a receiver which knows its sender can do. Counts datagrams until the sender closes.
class BareLoop {
public:
    explicit BareLoop(const std::string& path) : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        listening_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        const sockaddr_un address = addressOf(path);
        require(bind(listening_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                    listen(listening_, 8) == 0,
                "listen");
    }
    double rate(Sender& sender) {
        const double begin = nowNs();
        sender.start();
        const int socket = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        const int on = 1;
        setsockopt(socket, SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
        epoll_event event{EPOLLIN, {.u64 = 1}};
        require(epoll_ctl(epoll_, EPOLL_CTL_ADD, socket, &event) == 0, "epoll_ctl");
        std::uint32_t received = 0;
        do {
            require(epoll_wait(epoll_, &event, 1, 10'000) == 1, "the next datagram");
        } while (receiveOne(socket, received));
        const double rate = received / (nowNs() - begin) * 1e9;
        close(socket);
        require(received == kMessages + 1, "no datagram is lost");
        return rate;
    }

private:
    bool receiveOne(int socket, std::uint32_t& received) {
        iovec place{buffer_, sizeof buffer_};
        msghdr header{};
        header.msg_iov = &place;
        header.msg_iovlen = 1;
        header.msg_control = control_;
        header.msg_controllen = sizeof control_;
        if (recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) <= 0) return false;
        ++received;
        return true;
    }

    int epoll_;
    int listening_;
    char buffer_[65537];
    alignas(cmsghdr) char control_[CMSG_SPACE(sizeof(ucred))];
};

struct TemporaryFolder {
    TemporaryFolder() { require(mkdtemp(path.data()) != nullptr, "mkdtemp"); }
    ~TemporaryFolder() {
        for (const char* const name : {"/bench", "/bench.lock", "/bare"}) unlink((path + name).c_str());
        rmdir(path.c_str());
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::string path = "/tmp/quorvix-bench-XXXXXX";
};

void compareWithBuses() {
#ifdef QUORVIX_BENCH_SYSTEMD
    std::printf("  the same payload, sd-bus peer to peer: %.4g messages/s\n", systemdBusRate(kBusMessages));
#endif
#ifdef QUORVIX_BENCH_DBUS
    if (const double rate = messageBusRate(kBusMessages); rate > 0) {
        std::printf("  the same payload, through a private dbus-daemon: %.4g messages/s\n", rate);
    }
#endif
}

void measure(const Priority& priority) {
    const TemporaryFolder folder;
    Sender toDaemon([path = folder.path + "/bench"] { sendAll(path); });
    Sender toBareLoop([path = folder.path + "/bare"] { sendAll(path); });
    // Never destroyed: its queue runs to the end.
    Receiver& receiver = *new Receiver(folder.path, priority.quality);
    auto& bare = *new BareLoop(folder.path + "/bare");
    if (setpriority(PRIO_PROCESS, 0, priority.nice) != 0) {
        std::puts("without the right to raise a priority the receivers run with the ordinary one");
    }
    Comparison messages(priority.name, "messages/s");
    bare.rate(toBareLoop);
    receiver.rate(toDaemon);
    for (int round = 0; round < kRounds; ++round) {
        const double floor = bare.rate(toBareLoop);
        messages.add(receiver.rate(toDaemon), floor);
    }
    messages.print(Goal::atLeast, 0.8);
}

// In a process of its own: a daemon's state and its queues are there once a process.
void measureInChild(const Priority& priority) {
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child == 0) {
        measure(priority);
        _exit(0);
    }
    int status = 0;
    require(waitpid(child, &status, 0) == child && status == 0, "the messages are measured");
}

}  // namespace

int main() {
    pinToOneCpu();
    for (const Priority& priority : kPriorities) measureInChild(priority);
    compareWithBuses();
}
