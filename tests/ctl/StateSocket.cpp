#include "ctl/StateSocket.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/ctl/Tool.h"

namespace quorvix::ctl {
namespace {

using testing::HasSubstr;

// A bare socket in the daemon's place: gives `document` to the first who connects, and ends the stream unless told not
// to.
class FakeDaemon {
public:
    explicit FakeDaemon(std::string document, bool endsStream = true) {
        path_ = std::filesystem::path(testing::TempDir()) / ("state-" + std::to_string(::getpid()));
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        std::filesystem::remove(path_);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 1) != 0) {
            std::abort();
        }
        thread_ = std::thread([this, document = std::move(document), endsStream] {
            peer_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            std::string_view left = document;
            while (!left.empty()) {
                const ssize_t sent = ::send(peer_, left.data(), left.size(), MSG_NOSIGNAL);
                if (sent <= 0) break;
                left.remove_prefix(static_cast<std::size_t>(sent));
            }
            if (endsStream) ::shutdown(peer_, SHUT_WR);
        });
    }
    ~FakeDaemon() {
        thread_.join();
        ::close(peer_);
        ::close(listener_);
        std::filesystem::remove(path_);
    }
    FakeDaemon(const FakeDaemon&) = delete;
    FakeDaemon& operator=(const FakeDaemon&) = delete;

    std::string path() const { return path_.string(); }

private:
    std::filesystem::path path_;
    int listener_ = -1;
    int peer_ = -1;
    std::thread thread_;
};

TEST(StateSocket, ReadsADocumentLongerThanOneRead) {
    const std::string document(300'000, 'x');
    const FakeDaemon daemon(document);
    const Result<std::string> state = readState(daemon.path());
    ASSERT_TRUE(state);
    EXPECT_EQ(*state, document);
}

TEST(StateSocket, GivesUpOnADaemonThatNeverEndsTheStream) {
    const FakeDaemon daemon("{", false);
    const Result<std::string> state = readState(daemon.path(), {.timeout = std::chrono::milliseconds(50)});
    ASSERT_FALSE(state);
    EXPECT_EQ(state.error().value, ETIMEDOUT);
}

TEST(StateSocket, TakesADocumentOfExactlyItsLimit) {
    const FakeDaemon atLimit(std::string(1000, 'x'));
    EXPECT_TRUE(readState(atLimit.path(), {.bytes = 1000}));
}

TEST(StateSocket, GivesUpOnADocumentOneByteOverItsLimit) {
    const FakeDaemon over(std::string(1001, 'x'));
    const Result<std::string> state = readState(over.path(), {.bytes = 1000});
    ASSERT_FALSE(state);
    EXPECT_EQ(state.error().value, EFBIG);
}

TEST(StateSocket, APathThatNoSocketCanHaveFails) {
    const Result<std::string> state = readState("/" + std::string(200, 'x'));
    ASSERT_FALSE(state);
    EXPECT_EQ(state.error().value, ENAMETOOLONG);
}

TEST(StateSocket, StatusShowsTheStateAsATableOrAsItIs) {
    const std::string document = R"({"pid":12,"dailyCredits":{"left":3,"limit":8}})";
    Tool tool;
    {
        const FakeDaemon daemon(document);
        tool.services.statePath = daemon.path();
        EXPECT_EQ(tool.run({"status"}), ExitStatus::done);
        EXPECT_EQ(tool.out.str(), "quorvixd\n  pid  12\n\ndailyCredits\n  left   3\n  limit  8\n");
    }
    const FakeDaemon daemon(document);
    EXPECT_EQ(tool.run({"status", "--json"}), ExitStatus::done);
    EXPECT_EQ(nlohmann::ordered_json::parse(tool.out.str()).dump(), document);
}

TEST(StateSocket, StatusRefusesWhatIsNoState) {
    for (const char* document : {"[1]", "", "{\"a\":", "{\"a\":\"\xff\"}"}) {
        const FakeDaemon daemon(document);
        Tool tool;
        tool.services.statePath = daemon.path();
        EXPECT_EQ(tool.run({"status"}), ExitStatus::failed);
        EXPECT_THAT(tool.error.str(), HasSubstr("not a JSON object"));
    }
}

}  // namespace
}  // namespace quorvix::ctl
