#include "platform/linux/StateService.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "platform/linux/QueueService.h"
#include "platform/sim/SimLog.h"
#include "tests/support/MessageSocket.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

constexpr const char* kEndpoint = "com.norvane.test";

// The state socket on a real queue; readers are bare sockets.
class StateServiceTest : public testing::Test {
protected:
    ~StateServiceTest() override { queues_.reset(); }

    void publish(std::function<JsonObject()> provider) {
        queues_ = std::make_unique<LinuxQueueService>();
        queue_ = queues_->makeSerialQueue("test", QualityOfService::standard);
        service_.publish(kEndpoint, queue_, std::move(provider));
        queues_->start();
    }
    std::string path() const { return folder_.path(std::string(kEndpoint) + ".state"); }
    Descriptor connect() { return tests::connectTo(path(), SOCK_STREAM); }
    // Everything up to the end of file; "<error>" where it ends in an error.
    static std::string readAll(const Descriptor& socket) {
        std::string text;
        char part[4096];
        for (;;) {
            const ssize_t got = read(socket.get(), part, sizeof part);
            if (got < 0) return "<error>";
            if (got == 0) return text;
            text.append(part, static_cast<std::size_t>(got));
        }
    }
    std::uint64_t counter(std::string_view name) const {
        const JsonObject counters = service_.selfCounters();
        for (const auto& [key, value] : counters.members()) {
            if (key == name) return std::get<std::uint64_t>(value.content());
        }
        return UINT64_MAX;
    }

    tests::TemporaryFolder folder_;
    sim::SimLog log_;
    LinuxStateService service_{log_, folder_.path()};
    std::unique_ptr<LinuxQueueService> queues_;
    std::shared_ptr<WorkQueue> queue_;
};

TEST_F(StateServiceTest, WhoConnectsGetsOneDocumentAndTheEndOfFile) {
    int asked = 0;
    bool onQueue = false;
    publish([&] {
        onQueue = LinuxWorkQueue::from(*queue_).onQueue();
        return JsonObject{{"asked", std::int32_t{++asked}}};
    });
    EXPECT_EQ(readAll(connect()), "{\"asked\":1}\n");
    EXPECT_EQ(readAll(connect()), "{\"asked\":2}\n");
    EXPECT_TRUE(onQueue);
    EXPECT_EQ(counter("served"), 2u);
}

TEST_F(StateServiceTest, OnlyRootMayOpenIt) {
    publish([] { return JsonObject{}; });
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0600u);
}

TEST_F(StateServiceTest, WhatAReaderSendsIsRefusedAndDoesNotSpoilItsAnswer) {
    publish([] { return JsonObject{{"a", true}}; });
    std::promise<void> gate;
    queue_->async([&] { gate.get_future().wait(); });
    const Descriptor reader = connect();
    ASSERT_EQ(send(reader.get(), "command", 7, MSG_NOSIGNAL), 7);
    gate.set_value();
    EXPECT_EQ(readAll(reader), "{\"a\":true}\n");
    EXPECT_EQ(send(reader.get(), "command", 7, MSG_NOSIGNAL), -1);
}

TEST_F(StateServiceTest, TextThatIsNotUtf8IsMadeReadable) {
    publish([] { return JsonObject{{"name", std::string("a\xFF")}}; });
    EXPECT_EQ(readAll(connect()), "{\"name\":\"a\xEF\xBF\xBD\"}\n");
}

TEST_F(StateServiceTest, ALargeDocumentArrivesWhole) {
    const std::string large(1024 * 1024, 'x');
    publish([&] { return JsonObject{{"large", large}}; });
    EXPECT_EQ(readAll(connect()), "{\"large\":\"" + large + "\"}\n");
}

TEST_F(StateServiceTest, ReadersPastTheEighthAreClosedAndSlowOnesAreDropped) {
    // More than a socket takes, and soon made: all eight are to be there before the first is dropped.
    constexpr std::size_t kLarge = 400 * 1024;
    publish([] { return JsonObject{{"large", std::string(kLarge, 'x')}}; });
    std::vector<Descriptor> slow;
    for (std::uint32_t n = 0; n < LinuxStateService::kMostReaders; ++n) slow.push_back(connect());
    EXPECT_EQ(readAll(connect()), "") << "closed without a byte";
    EXPECT_EQ(counter("refusedFull"), 1u);
    for (const Descriptor& reader : slow) ASSERT_TRUE(tests::waitForHangUp(reader.get()));
    EXPECT_EQ(counter("droppedSlow"), 8u);
    slow.clear();
    EXPECT_EQ(readAll(connect()).size(), kLarge + 13);
}

TEST_F(StateServiceTest, AReaderThatGoesAwayIsForgotten) {
    publish([] { return JsonObject{{"large", std::string(1024 * 1024, 'x')}}; });
    for (int n = 0; n < 20; ++n) connect();
    EXPECT_EQ(readAll(connect()).size(), 1024u * 1024 + 13);
    EXPECT_EQ(counter("droppedSlow"), 0u);
}

TEST_F(StateServiceTest, WithoutItsSocketTheDaemonRunsOn) {
    tests::writeWholeFile(path(), "in the way");
    publish([] { return JsonObject{}; });
    EXPECT_EQ(log_.texts("platform"),
              std::vector<std::string>{"state socket: can't look at " + path() + ": Socket operation on non-socket"});
}

}  // namespace
}  // namespace quorvix::linuxos
