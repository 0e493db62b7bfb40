#include "platform/linux/Lifecycle.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/linux/QueueService.h"

// How the process tells that it is up, and how it ends: each test looks at a child of its own, through a pipe.

namespace quorvix::linuxos {
namespace {

using namespace std::chrono_literals;

class Child {
public:
    // Runs `body` in a child, which gets a function that says a word to the parent.
    using Say = std::function<void(std::string_view)>;

    explicit Child(const std::function<void(const Say&)>& body) {
        std::array<int, 2> pipe{};
        EXPECT_EQ(::pipe(pipe.data()), 0);
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(pipe[0]);
            body([&](std::string_view word) {
                if (::write(pipe[1], word.data(), word.size()) < 0) ::_exit(99);
            });
            ::_exit(98);
        }
        ::close(pipe[1]);
        pipe_ = pipe[0];
    }
    ~Child() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(pipe_);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Waits until the child said as much in all.
    void await(std::string_view said) {
        char byte = 0;
        while (said_.size() < said.size() && ::read(pipe_, &byte, 1) == 1) said_ += byte;
        EXPECT_EQ(said_, said);
    }
    void terminate() const { ::kill(pid_, SIGTERM); }
    // Waits for the child's end and returns its wait status.
    int end() {
        char byte = 0;
        while (::read(pipe_, &byte, 1) == 1) said_ += byte;
        int status = 0;
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        pid_ = 0;
        return status;
    }
    const std::string& said() const { return said_; }

private:
    pid_t pid_ = 0;
    int pipe_ = -1;
    std::string said_;
};

void expectStatus(int waitStatus, int status) {
    ASSERT_TRUE(WIFEXITED(waitStatus)) << waitStatus;
    EXPECT_EQ(WEXITSTATUS(waitStatus), status);
}

void expectSignal(int waitStatus, int signal) {
    ASSERT_TRUE(WIFSIGNALED(waitStatus)) << waitStatus;
    EXPECT_EQ(WTERMSIG(waitStatus), signal);
}

// The daemon's shape: a termination handler and a flush hook, both of which say that they ran.
void runDaemon(const Child::Say& say, const Work& handler, const LinuxLifecycle::FlushHook& hook) {
    LinuxLifecycle lifecycle("");
    LinuxQueueService queues(&lifecycle);
    const auto queue = queues.makeSerialQueue("daemon", QualityOfService::standard);
    queues.setTerminationHandler(queue, handler);
    lifecycle.addFlushHook(hook);
    queue->async([&] { say("up "); });
    queues.runMain();
}

[[noreturn]] void hang() {
    for (;;) ::pause();
}

// A service manager's end of the notification socket.
class Manager {
public:
    explicit Manager(std::string_view name) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name.front() == '@') address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), length), 0) << std::strerror(errno);
    }
    ~Manager() { ::close(socket_); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    // The next datagram; empty when there is none.
    std::string receive() const {
        std::array<char, 128> text{};
        const ssize_t size = ::recv(socket_, text.data(), text.size(), 0);
        return size < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(size));
    }

private:
    int socket_ = -1;
};

TEST(Lifecycle, TellsReadinessToASocketThatIsAPath) {
    std::string folder = "/tmp/quorvix-lifecycle-XXXXXX";
    ASSERT_NE(::mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/notify";
    const Manager manager(path);
    LinuxLifecycle(path).ready();
    EXPECT_EQ(manager.receive(), "READY=1");
    EXPECT_EQ(manager.receive(), "");
    ::unlink(path.c_str());
    ::rmdir(folder.c_str());
}

TEST(Lifecycle, TellsReadinessToAnAbstractSocket) {
    const std::string name = "@quorvix-lifecycle-" + std::to_string(::getpid());
    const Manager manager(name);
    LinuxLifecycle(name).ready();
    EXPECT_EQ(manager.receive(), "READY=1");
}

TEST(Lifecycle, ReadinessWithoutAManagerIsNoMatter) {
    LinuxLifecycle("").ready();
    LinuxLifecycle("@").ready();
    LinuxLifecycle("/nonexistent/notify").ready();
    LinuxLifecycle(std::string(200, 'x')).ready();
}

TEST(Lifecycle, TheSocketIsWhatTheEnvironmentSays) {
    ::setenv("NOTIFY_SOCKET", "/somewhere", 1);
    EXPECT_EQ(LinuxLifecycle::socketFromEnvironment(), "/somewhere");
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(LinuxLifecycle::socketFromEnvironment(), "");
}

TEST(Lifecycle, ExitRunsTheHooksInOrderAndEndsWithTheStatus) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        lifecycle.addFlushHook([&](std::chrono::nanoseconds budget) {
            say(budget > 0ns && budget <= LinuxLifecycle::kFlushBudget ? "first " : "wrong ");
        });
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say("second"); });
        lifecycle.exit(71);
    });
    expectStatus(child.end(), 71);
    EXPECT_EQ(child.said(), "first second");
}

TEST(Lifecycle, ExitOnAQueueEndsTheProcessBesideLiveThreads) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        LinuxQueueService queues(&lifecycle);
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say("flush"); });
        queues.makeSerialQueue("busy", QualityOfService::standard)->async([] { hang(); });
        queues.makeSerialQueue("daemon", QualityOfService::standard)->async([&] { lifecycle.exit(3); });
        queues.runMain();
    });
    expectStatus(child.end(), 3);
    EXPECT_EQ(child.said(), "flush");
}

TEST(Lifecycle, AHookThatHangsHoldsTheEndUpNoLongerThanTheBudget) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) {
            say("hanging");
            hang();
        });
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say(" never"); });
        lifecycle.exit(5);
    });
    expectStatus(child.end(), 5);
    EXPECT_EQ(child.said(), "hanging");
}

TEST(Lifecycle, AHookThatUsesTheWholeBudgetLeavesNoneForTheNext) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        lifecycle.addFlushHook([&](std::chrono::nanoseconds budget) {
            say("slow");
            std::this_thread::sleep_for(budget + 1ms);
        });
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say(" never"); });
        lifecycle.exit(0);
    });
    expectStatus(child.end(), 0);
    EXPECT_EQ(child.said(), "slow");
}

TEST(Lifecycle, TheHooksRunOnce) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say("flush"); });
        lifecycle.flush();
        lifecycle.exit(0);
    });
    expectStatus(child.end(), 0);
    EXPECT_EQ(child.said(), "flush");
}

TEST(Termination, TheHandlerRunsThenTheFlushThenTheSignalEndsTheProcess) {
    Child child([](const Child::Say& say) {
        runDaemon(
            say, [&] { say("handler "); }, [&](std::chrono::nanoseconds) { say("flush"); });
    });
    child.await("up ");
    child.terminate();
    expectSignal(child.end(), SIGTERM);
    EXPECT_EQ(child.said(), "up handler flush");
}

TEST(Termination, AnExitWithinTheHandlerCounts) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        LinuxQueueService queues(&lifecycle);
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say("flush"); });
        const auto queue = queues.makeSerialQueue("daemon", QualityOfService::standard);
        queues.setTerminationHandler(queue, [&] { lifecycle.exit(4); });
        queue->async([&] { say("up "); });
        queues.runMain();
    });
    child.await("up ");
    child.terminate();
    expectStatus(child.end(), 4);
    EXPECT_EQ(child.said(), "up flush");
}

TEST(Termination, ASecondSignalEndsTheProcessAtOnce) {
    Child child([](const Child::Say& say) {
        runDaemon(
            say,
            [&] {
                say("handler");
                hang();
            },
            [&](std::chrono::nanoseconds) { say(" flush"); });
    });
    child.await("up ");
    child.terminate();
    child.await("up handler");
    const auto begin = std::chrono::steady_clock::now();
    child.terminate();
    expectSignal(child.end(), SIGTERM);
    // Without the second signal the limit of two seconds would have ended it.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1500ms);
    EXPECT_EQ(child.said(), "up handler");
}

TEST(Termination, AHandlerThatHangsEndsTheProcessAfterTwoSeconds) {
    Child child([](const Child::Say& say) {
        runDaemon(
            say,
            [&] {
                say("handler");
                hang();
            },
            [&](std::chrono::nanoseconds) { say(" flush"); });
    });
    child.await("up ");
    const auto begin = std::chrono::steady_clock::now();
    child.terminate();
    expectSignal(child.end(), SIGTERM);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 2s);
    EXPECT_EQ(child.said(), "up handler");
}

TEST(Termination, WithoutAHandlerTheStoresAreFlushedAllTheSame) {
    Child child([](const Child::Say& say) {
        LinuxLifecycle lifecycle("");
        LinuxQueueService queues(&lifecycle);
        lifecycle.addFlushHook([&](std::chrono::nanoseconds) { say("flush"); });
        queues.makeSerialQueue("daemon", QualityOfService::standard)->async([&] { say("up "); });
        queues.runMain();
    });
    child.await("up ");
    child.terminate();
    expectSignal(child.end(), SIGTERM);
    EXPECT_EQ(child.said(), "up flush");
}

}  // namespace
}  // namespace quorvix::linuxos
