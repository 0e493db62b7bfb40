#include "ctl/ActivationMessages.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "platform/linux/Descriptor.h"
#include "platform/linux/MessageCodec.h"
#include "tests/ctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;

// A bare socket in the daemon's place. Reads one message of the first who connects, unless told not to.
class FakeEndpoint {
public:
    explicit FakeEndpoint(const std::string& path, bool reads = true)
        : listener_(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener_.get(), 1), 0);
        if (!reads) return;
        thread_ = std::thread([this] {
            const linuxos::Descriptor peer(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            received_.resize(65536);
            const ssize_t length = recv(peer.get(), received_.data(), received_.size(), 0);
            received_.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
        });
    }
    ~FakeEndpoint() {
        if (thread_.joinable()) thread_.join();
    }

    // What was received, as "key=value" by type.
    std::string message() {
        if (thread_.joinable()) thread_.join();
        linuxos::EntryStorage storage;
        const auto decoded = linuxos::decodeMessage(received_, {}, storage);
        EXPECT_EQ(decoded.error, linuxos::DecodeError::none);
        return linuxos::describeDictionary(decoded.entries);
    }
    std::uint64_t unsignedValue(std::string_view key) {
        if (thread_.joinable()) thread_.join();
        linuxos::EntryStorage storage;
        const auto decoded = linuxos::decodeMessage(received_, {}, storage);
        return MessageDictionary(decoded.entries, ObjectId()).uint64(key);
    }

private:
    linuxos::Descriptor listener_;
    std::vector<std::uint8_t> received_;
    std::thread thread_;
};

class ActivationVerbs : public testing::Test {
protected:
    ActivationVerbs() { tool.services.messagePath = folder.path("endpoint"); }
    tests::TemporaryFolder folder;
    Tool tool;
};

TEST_F(ActivationVerbs, BeginTellsOfALaunchInTheForeground) {
    FakeEndpoint endpoint(tool.services.messagePath);
    const std::uint64_t before = activationClockNow();
    EXPECT_EQ(tool.run({"activation", "begin", "--pid", "77", "--bundle", "com.example.app"}), ExitStatus::done);
    const std::string message = endpoint.message();
    EXPECT_THAT(message, HasSubstr("\"command\": int64 4"));
    EXPECT_THAT(message, HasSubstr("\"pid\": int64 77"));
    EXPECT_THAT(message, HasSubstr("\"bundle-id\": string \"com.example.app\""));
    EXPECT_THAT(message, HasSubstr("\"app-activation-state\": int64 1"));
    EXPECT_THAT(message, HasSubstr("\"app-activation-type\": int64 1"));
    EXPECT_GE(endpoint.unsignedValue("startTime"), before);
    EXPECT_GE(endpoint.unsignedValue("vexStartLatency"), endpoint.unsignedValue("startTime"));
    EXPECT_LE(endpoint.unsignedValue("vexStartLatency"), activationClockNow());
    // After 2020: the clock counts from 2001 and in milliseconds.
    EXPECT_GT(before, 599616000000u);
}

TEST_F(ActivationVerbs, BeginTellsOfAResumeInTheBackground) {
    FakeEndpoint endpoint(tool.services.messagePath);
    EXPECT_EQ(tool.run({"activation", "begin", "--pid", "77", "--bundle", "b", "--resume", "--background"}),
              ExitStatus::done);
    EXPECT_THAT(endpoint.message(), HasSubstr("\"app-activation-state\": int64 0"));
    EXPECT_THAT(endpoint.message(), HasSubstr("\"app-activation-type\": int64 2"));
}

TEST_F(ActivationVerbs, EndTellsTheResult) {
    FakeEndpoint endpoint(tool.services.messagePath);
    EXPECT_EQ(tool.run({"activation", "end", "--pid", "77", "--bundle", "b", "--result", "255"}), ExitStatus::done);
    EXPECT_THAT(endpoint.message(), HasSubstr("\"command\": int64 5"));
    EXPECT_THAT(endpoint.message(), HasSubstr("\"app-activation-result\": int64 255"));
    EXPECT_GT(endpoint.unsignedValue("endTime"), 599616000000u);
}

TEST_F(ActivationVerbs, WithoutADaemonThereIsOneLine) {
    EXPECT_EQ(tool.run({"activation", "end", "--pid", "1", "--bundle", "b"}), ExitStatus::notRunning);
    EXPECT_THAT(tool.error.str(), HasSubstr("quorvixd is not running"));
}

TEST_F(ActivationVerbs, GivesUpOnADaemonThatDoesNotRead) {
    const FakeEndpoint endpoint(tool.services.messagePath, false);
    const Result<void> sent =
        sendMessage(tool.services.messagePath, messageOf(ActivationEnd{}), std::chrono::milliseconds(20));
    ASSERT_FALSE(sent);
    EXPECT_EQ(sent.error().value, ETIMEDOUT);
}

TEST_F(ActivationVerbs, RefusesWhatMakesNoSense) {
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {"activation", "begin", "--bundle", "b"},
             {"activation", "begin", "--pid", "1"},
             {"activation", "begin", "--pid", "0", "--bundle", "b"},
             {"activation", "begin", "--pid", "-1", "--bundle", "b"},
             {"activation", "begin", "--pid", "2147483648", "--bundle", "b"},
             {"activation", "begin", "--pid", "1", "--bundle", "b", "--launch", "--resume"},
             {"activation", "begin", "--pid", "1", "--bundle", "b", "--foreground", "--background"},
             {"activation", "end", "--pid", "1", "--bundle", "b", "--result", "256"},
             {"activation", "begin", "--pid", "1", "--bundle", std::string(70000, 'b')},
             {"activation", "run"},
             {"activation", "run", "--json", "--console", "--", "true"}}) {
        EXPECT_EQ(tool.run(wrong), ExitStatus::usage) << testing::PrintToString(wrong[1]);
    }
}

TEST_F(ActivationVerbs, RunShowsWhatTheCommandUsed) {
    EXPECT_EQ(tool.run({"activation", "run", "--", "/bin/sh", "-c", "exit 3"}), static_cast<ExitStatus>(3));
    EXPECT_THAT(tool.out.str(), testing::StartsWith("Found "));
    EXPECT_THAT(tool.out.str(), testing::ContainsRegex("\n +[0-9]+ +sh +[0-9]+ "));
    EXPECT_THAT(tool.out.str(), HasSubstr("Delta VM Statistics (pages)"));
}

TEST_F(ActivationVerbs, RunGivesTheJsonText) {
    EXPECT_EQ(tool.run({"activation", "run", "--json", "--", "true"}), ExitStatus::done);
    EXPECT_THAT(tool.out.str(), testing::StartsWith("\n{\n\"cpu_statistics\":\n["));
    EXPECT_THAT(tool.out.str(), HasSubstr("\"memory_statistics\":"));
}

TEST_F(ActivationVerbs, RunKeepsNamesFromTheTerminal) {
    const std::string rename = "printf 'x\\033[2J\\377\\177' > /proc/$$/comm; true";
    for (const char* form : {"--console", "--json"}) {
        EXPECT_EQ(tool.run({"activation", "run", form, "--", "/bin/sh", "-c", rename}), ExitStatus::done);
        EXPECT_THAT(tool.out.str(), HasSubstr("x?[2J\xef\xbf\xbd?"));
        EXPECT_THAT(tool.out.str(), testing::Not(HasSubstr("\x1b")));
    }
}

TEST_F(ActivationVerbs, RunSaysWhyACommandCouldNotStart) {
    EXPECT_EQ(tool.run({"activation", "run", "--", "/nonexistent/command"}), ExitStatus::failed);
    EXPECT_EQ(tool.error.str(), "quorvixctl: /nonexistent/command: No such file or directory\n");
    EXPECT_EQ(tool.out.str(), "");
}

TEST_F(ActivationVerbs, RunTellsOfASignal) {
    EXPECT_EQ(tool.run({"activation", "run", "--", "/bin/sh", "-c", "kill -9 $$"}), static_cast<ExitStatus>(137));
}

}  // namespace
}  // namespace quorvix::ctl
