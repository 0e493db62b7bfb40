#include <dbus/dbus.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
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

// A bus for us alone: an abstract socket, no service files, gone with its object.
class PrivateBus {
public:
    PrivateBus() {
        int ends[2];
        require(pipe(ends) == 0, "pipe");
        process_ = fork();
        require(process_ >= 0, "fork");
        if (process_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(ends[1], STDOUT_FILENO);
            close(ends[0]);
            // It complains where it may not raise its own limits.
            close(STDERR_FILENO);
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1", nullptr);
            _exit(127);
        }
        close(ends[1]);
        char text[512];
        ssize_t size;
        while (address_.find('\n') == std::string::npos && (size = read(ends[0], text, sizeof text)) > 0) {
            address_.append(text, static_cast<std::size_t>(size));
        }
        close(ends[0]);
        address_ = address_.substr(0, address_.find('\n'));
    }
    ~PrivateBus() {
        kill(process_, SIGTERM);
        waitpid(process_, nullptr, 0);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Empty: there is no bus.
    const std::string& address() const { return address_; }

private:
    pid_t process_;
    std::string address_;
};

DBusConnection* attach(const std::string& address) {
    DBusConnection* const bus = dbus_connection_open_private(address.c_str(), nullptr);
    require(bus != nullptr && dbus_bus_register(bus, nullptr), "a connection to the private bus");
    dbus_connection_set_exit_on_disconnect(bus, FALSE);
    return bus;
}

void sendAll(const std::string& address, std::uint32_t messages) {
    DBusConnection* const bus = attach(address);
    const std::string payload(kPayloadBytes, 'x');
    const char* const text = payload.c_str();
    for (std::uint32_t i = 0; i < messages; ++i) {
        DBusMessage* const message = dbus_message_new_signal(kPath, kInterface, kMember);
        require(message && dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) &&
                    dbus_connection_send(bus, message, nullptr),
                "a signal is sent");
        dbus_message_unref(message);
        dbus_connection_flush(bus);
    }
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
}

}  // namespace

double messageBusRate(std::uint32_t messages) {
    const PrivateBus daemon;
    if (daemon.address().empty()) return 0;
    Sender sender([&daemon, messages] { sendAll(daemon.address(), messages); });
    DBusConnection* const bus = attach(daemon.address());
    dbus_bus_add_match(bus, "type='signal',interface='com.norvane.quorvixd'", nullptr);
    dbus_connection_flush(bus);
    const double begin = nowNs();
    sender.start();
    for (std::uint32_t received = 0; received < messages;) {
        require(dbus_connection_read_write(bus, 10'000), "the private bus stays up");
        while (DBusMessage* const message = dbus_connection_pop_message(bus)) {
            if (dbus_message_is_signal(message, kInterface, kMember)) {
                const char* text = nullptr;
                require(dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) &&
                            std::strlen(text) == kPayloadBytes,
                        "payload");
                ++received;
            }
            dbus_message_unref(message);
        }
    }
    const double rate = messages / (nowNs() - begin) * 1e9;
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    return rate;
}

}  // namespace quorvix::bench
