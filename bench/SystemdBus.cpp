#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "bench/Bench.h"
#include "bench/Buses.h"
#include "bench/Sender.h"

namespace quorvix::bench {

namespace {

constexpr const char* kPath = "/com/norvane/quorvixd";
constexpr const char* kInterface = "com.norvane.quorvixd";
constexpr const char* kMember = "Message";

sd_bus* attach(int socket, bool server) {
    sd_bus* bus = nullptr;
    require(sd_bus_new(&bus) >= 0 && sd_bus_set_fd(bus, socket, socket) >= 0, "a bus connection");
    sd_id128_t id{};
    id.bytes[0] = 1;
    if (server) require(sd_bus_set_server(bus, 1, id) >= 0 && sd_bus_set_anonymous(bus, 1) >= 0, "a bus server");
    require(sd_bus_start(bus) >= 0, "the bus connection starts");
    return bus;
}

void sendAll(int socket, std::uint32_t messages) {
    sd_bus* const bus = attach(socket, false);
    const std::string payload(kPayloadBytes, 'x');
    for (std::uint32_t i = 0; i < messages; ++i) {
        require(sd_bus_emit_signal(bus, kPath, kInterface, kMember, "s", payload.c_str()) >= 0, "a signal is sent");
        // What is not flushed piles up in the sender's memory, up to a bound at which sending fails.
        require(sd_bus_flush(bus) >= 0, "a signal is flushed");
    }
    sd_bus_flush_close_unref(bus);
}

}  // namespace

double systemdBusRate(std::uint32_t messages) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    Sender sender([&ends, messages] {
        close(ends[0]);
        sendAll(ends[1], messages);
    });
    close(ends[1]);
    sd_bus* const bus = attach(ends[0], true);
    const double begin = nowNs();
    sender.start();
    for (std::uint32_t received = 0; received < messages;) {
        sd_bus_message* message = nullptr;
        const int progress = sd_bus_process(bus, &message);
        require(progress >= 0, "the bus is read");
        if (message && sd_bus_message_is_signal(message, kInterface, kMember)) {
            const char* text = nullptr;
            require(sd_bus_message_read(message, "s", &text) >= 0 && std::strlen(text) == kPayloadBytes, "payload");
            ++received;
        }
        sd_bus_message_unref(message);
        if (progress == 0) require(sd_bus_wait(bus, 10'000'000) > 0, "the next message");
    }
    const double rate = messages / (nowNs() - begin) * 1e9;
    sd_bus_close_unref(bus);
    return rate;
}

}  // namespace quorvix::bench
