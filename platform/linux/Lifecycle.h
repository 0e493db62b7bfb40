#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Services.h"

namespace quorvix::linuxos {

// The process towards its service manager, and the one way in which it ends.
//
// Stores register a hook that flushes them; at the end all hooks get 200 ms together, on a thread of their own, so that
// a hook that hangs holds nothing up. The process then ends without running destructors, since other threads live on
// until the last moment. ready(), alive() and exit() are callable from any thread; hooks are added before runMain.
class LinuxLifecycle final : public ProcessLifecycle {
public:
    // Gets the time that is left for it; called once, on a thread that is nobody's queue.
    using FlushHook = std::function<void(std::chrono::nanoseconds budget)>;

    static constexpr std::chrono::milliseconds kFlushBudget{200};

    // notifySocket: where the service manager listens, a path or an abstract name after '@'; empty: there is none.
    explicit LinuxLifecycle(std::string notifySocket = socketFromEnvironment());

    void ready() override;
    // Tells the service manager's watchdog that the process is well. Who calls it must be what has to be well.
    void alive();
    [[noreturn]] void exit(int status) override;

    void addFlushHook(FlushHook hook);
    // Runs the hooks, once in the life of the process, and returns when they are done or their time is over.
    void flush();

    // What the service manager passed in NOTIFY_SOCKET.
    static std::string socketFromEnvironment();

private:
    const std::string notifySocket_;
    std::mutex mutex_;
    std::vector<FlushHook> hooks_;
    // Held throughout the flush: who comes second waits for the first.
    std::mutex flushMutex_;
    bool flushed_ = false;
};

}  // namespace quorvix::linuxos
