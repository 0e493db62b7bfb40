#include "platform/linux/Lifecycle.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

namespace quorvix::linuxos {

namespace {

using Clock = std::chrono::steady_clock;

// Shared with the flushing thread, which may still hang when everybody else has gone on.
struct Flush {
    std::vector<LinuxLifecycle::FlushHook> hooks;
    Clock::time_point deadline;
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;

    void run() {
        for (const LinuxLifecycle::FlushHook& hook : hooks) {
            const auto left = deadline - Clock::now();
            if (left.count() <= 0) break;
            hook(left);
        }
        const std::lock_guard lock(mutex);
        done = true;
        changed.notify_all();
    }
};

// One datagram of the notification protocol.
void notify(std::string_view address, std::string_view message) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    // Abstract names are counted, paths end in NUL: both fit with a byte to spare.
    if (address.size() < 2 || address.size() >= sizeof name.sun_path) return;
    std::memcpy(name.sun_path, address.data(), address.size());
    if (address.front() == '@') name.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) return;
    // A manager that does not listen can't be told anything; it has its own start-up limit.
    [[maybe_unused]] const ssize_t sent = ::sendto(socket, message.data(), message.size(), MSG_NOSIGNAL,
                                                   reinterpret_cast<const sockaddr*>(&name), length);
    ::close(socket);
}

}  // namespace

LinuxLifecycle::LinuxLifecycle(std::string notifySocket) : notifySocket_(std::move(notifySocket)) {}

std::string LinuxLifecycle::socketFromEnvironment() {
    const char* const socket = std::getenv("NOTIFY_SOCKET");
    return socket == nullptr ? "" : socket;
}

void LinuxLifecycle::ready() { notify(notifySocket_, "READY=1"); }

void LinuxLifecycle::alive() { notify(notifySocket_, "WATCHDOG=1"); }

void LinuxLifecycle::exit(int status) {
    flush();
    ::_exit(status);
}

void LinuxLifecycle::addFlushHook(FlushHook hook) {
    const std::lock_guard lock(mutex_);
    hooks_.push_back(std::move(hook));
}

void LinuxLifecycle::flush() {
    const std::lock_guard flushLock(flushMutex_);
    if (std::exchange(flushed_, true)) return;
    const auto flush = std::make_shared<Flush>();
    flush->deadline = Clock::now() + kFlushBudget;
    {
        const std::lock_guard lock(mutex_);
        flush->hooks.swap(hooks_);
    }
    if (flush->hooks.empty()) return;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
        std::thread([flush] { flush->run(); }).detach();
    } catch (const std::system_error&) {
        flush->run();  // No thread to be had: the stores matter more than a hook that could hang.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    std::unique_lock lock(flush->mutex);
    flush->changed.wait_until(lock, flush->deadline, [&] { return flush->done; });
}

}  // namespace quorvix::linuxos
