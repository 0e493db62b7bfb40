#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/linux/EndpointSocket.h"
#include "platform/linux/Lifecycle.h"
#include "platform/linux/MessageService.h"
#include "platform/linux/QueueService.h"
#include "platform/sim/SimLifecycle.h"
#include "platform/sim/SimLog.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/MessageSocket.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

using tests::ChildProcess;
using tests::connectTo;

constexpr const char* kEndpoint = "com.norvane.test";

// Opens endpoints in a folder of its own.
class EndpointTest : public testing::Test {
protected:
    std::string path() const { return folder_.path(kEndpoint); }
    Result<Descriptor> bindHere(int type = SOCK_SEQPACKET) { return bindEndpoint(path(), type, 0666, failedStep_); }
    // Starts a service on the folder and opens the endpoint; the status with which the process would have ended, or 0.
    int startDaemon() {
        LinuxMessageService service(log_, lifecycle_, regions_, {.runDirectory = folder_.path(), .limits = {}});
        LinuxQueueService queues;
        try {
            const auto listener = service.makeListener(kEndpoint, queues.makeSerialQueue("test", {}));
            reachable_ = static_cast<bool>(connectTo(path()));
            return 0;
        } catch (const sim::SimulatedExit& exit) {
            return exit.status;
        }
    }
    std::string line() const {
        const auto lines = log_.texts("platform");
        return lines.empty() ? "" : lines.back();
    }

    tests::TemporaryFolder folder_;
    sim::SimLog log_;
    sim::SimLifecycle lifecycle_;
    MappedRegions regions_;
    std::string failedStep_;
    bool reachable_ = false;
};

TEST_F(EndpointTest, ASecondDaemonEndsWithStatus71AndALine) {
    const Result<Descriptor> first = bindHere();
    ASSERT_TRUE(first);
    EXPECT_EQ(startDaemon(), 71);
    EXPECT_EQ(line(), "message service: another process already listens on " + path());
    EXPECT_TRUE(connectTo(path())) << "the first one's socket must be untouched";
}

TEST_F(EndpointTest, TheRealProcessEndsWithStatus71) {
    const Result<Descriptor> first = bindHere();
    ASSERT_TRUE(first);
    ChildProcess second([&] {
        LinuxLifecycle lifecycle("");
        LinuxMessageService service(log_, lifecycle, regions_, {.runDirectory = folder_.path(), .limits = {}});
        LinuxQueueService queues;
        service.makeListener(kEndpoint, queues.makeSerialQueue("test", {}));
    });
    const int status = second.wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 71);
}

TEST_F(EndpointTest, AStaleSocketIsReplaced) {
    struct stat old {};
    {
        const Result<Descriptor> gone = bindHere();
        ASSERT_TRUE(gone);
        ASSERT_EQ(stat(path().c_str(), &old), 0);
    }
    EXPECT_FALSE(connectTo(path())) << "nobody listens any more";
    EXPECT_EQ(startDaemon(), 0);
    EXPECT_TRUE(reachable_);
}

TEST_F(EndpointTest, AListenerOfAnotherTypeCountsAsSomebody) {
    const Result<Descriptor> stream = bindHere(SOCK_STREAM);
    ASSERT_TRUE(stream);
    EXPECT_EQ(startDaemon(), 71);
}

TEST_F(EndpointTest, AFileThatIsNoSocketIsNotRemoved) {
    tests::writeWholeFile(path(), "precious");
    EXPECT_EQ(startDaemon(), 71);
    EXPECT_EQ(line(), "message service: can't look at " + path() + ": Socket operation on non-socket");
    EXPECT_EQ(tests::readWholeFile(path()), "precious");
}

TEST_F(EndpointTest, AMissingFolderAndATooLongNameEndWithStatus71) {
    LinuxQueueService queues;
    LinuxMessageService nowhere(log_, lifecycle_, regions_, {.runDirectory = folder_.path("none"), .limits = {}});
    EXPECT_THROW(nowhere.makeListener(kEndpoint, queues.makeSerialQueue("test", {})), sim::SimulatedExit);
    EXPECT_EQ(lifecycle_.exitStatus(), 71);
    EXPECT_NE(line().find("No such file or directory"), std::string::npos);
    LinuxMessageService service(log_, lifecycle_, regions_, {.runDirectory = folder_.path(), .limits = {}});
    EXPECT_THROW(service.makeListener(std::string(108, 'x'), queues.makeSerialQueue("test", {})), sim::SimulatedExit);
    EXPECT_NE(line().find("File name too long"), std::string::npos);
}

TEST_F(EndpointTest, ALinkInThePlaceOfTheLockIsNotFollowed) {
    ASSERT_EQ(symlink(folder_.path("elsewhere").c_str(), (path() + ".lock").c_str()), 0);
    EXPECT_EQ(startDaemon(), 71);
    EXPECT_NE(access(folder_.path("elsewhere").c_str(), F_OK), 0);
}

// What a child that was started with passed sockets reports through its exit status.
enum Finding { kAsExpected = 0, kNotTaken = 1, kVariablesLeft = 2, kNotCloseOnExec = 3, kEndedWith71 = 4 };

// Runs as the service manager's child: the socket as descriptor 3, the variables set.
class TakeoverTest : public EndpointTest {
protected:
    struct Environment {
        std::string names;
        std::string count = "1";
        bool ofThisProcess = true;
    };
    int findingOfChild(int socket, const Environment& environment) {
        ChildProcess child([&] {
            dup2(socket, 3);
            setenv("LISTEN_FDS", environment.count.c_str(), 1);
            setenv("LISTEN_PID", std::to_string(environment.ofThisProcess ? getpid() : getppid()).c_str(), 1);
            if (!environment.names.empty()) setenv("LISTEN_FDNAMES", environment.names.c_str(), 1);
            _exit(lookAround());
        });
        const int status = child.wait();
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    int lookAround() {
        LinuxMessageService service(log_, lifecycle_, regions_, {.runDirectory = folder_.path("none"), .limits = {}});
        if (getenv("LISTEN_FDS") || getenv("LISTEN_PID") || getenv("LISTEN_FDNAMES")) return kVariablesLeft;
        LinuxQueueService queues;
        try {
            // The run directory does not exist: only a socket that was passed can be had.
            const auto listener = service.makeListener(kEndpoint, queues.makeSerialQueue("test", {}));
        } catch (const sim::SimulatedExit&) {
            return line().find("is not a listening") != std::string::npos ? kEndedWith71 : kNotTaken;
        }
        return fcntl(3, F_GETFD) & FD_CLOEXEC ? kAsExpected : kNotCloseOnExec;
    }
};

TEST_F(TakeoverTest, APassedSocketIsTakenByItsName) {
    const Result<Descriptor> socket = bindHere();
    EXPECT_EQ(findingOfChild(socket->get(), {.names = kEndpoint}), kAsExpected);
    EXPECT_EQ(findingOfChild(socket->get(), {.names = std::string(kEndpoint) + ":other"}), kAsExpected);
}

TEST_F(TakeoverTest, ASocketOfAnotherNameOrForAnotherProcessIsNotTaken) {
    const Result<Descriptor> socket = bindHere();
    EXPECT_EQ(findingOfChild(socket->get(), {.names = "other"}), kNotTaken);
    EXPECT_EQ(findingOfChild(socket->get(), {.names = kEndpoint, .ofThisProcess = false}), kNotTaken);
    for (const char* count : {"0", "-1", "x", "1x", "", "65", "99999999999999999999"}) {
        EXPECT_EQ(findingOfChild(socket->get(), {.names = kEndpoint, .count = count}), kNotTaken) << count;
    }
}

TEST_F(TakeoverTest, APassedSocketOfTheWrongKindEndsWithStatus71) {
    const Result<Descriptor> stream = bindHere(SOCK_STREAM);
    EXPECT_EQ(findingOfChild(stream->get(), {.names = kEndpoint}), kEndedWith71);
    const Descriptor notListening(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    EXPECT_EQ(findingOfChild(notListening.get(), {.names = kEndpoint}), kEndedWith71);
    const Descriptor file(open("/dev/null", O_RDWR | O_CLOEXEC));
    EXPECT_EQ(findingOfChild(file.get(), {.names = kEndpoint}), kEndedWith71);
}

}  // namespace
}  // namespace quorvix::linuxos
