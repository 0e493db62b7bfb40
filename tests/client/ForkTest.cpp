#include <sys/wait.h>

#include <iterator>

#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

using ForkTest = ConnectedClientTest;

/* Runs the work in a forked child, which must return true there. */
template <typename Work>
::testing::AssertionResult holdsInChild(Work work) {
    const pid_t child = fork();
    if (child == 0) _exit(work() ? 0 : 1);
    int status = -1;
    if (waitpid(child, &status, 0) != child) return ::testing::AssertionFailure() << "no child";
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "status " << status;
}

std::size_t countOpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST_F(ForkTest, TheChildWritesIntoAPrivateRegion) {
    const MappedRegion region(region_);
    quorvix_watch* watch = quorvix_watch_open("forked", 0);
    quorvix_hang_slot& slot = region.slotNamed("forked");
    slot.startTime = 5;
    EXPECT_TRUE(holdsInChild([&] {
        quorvix_begin(watch);
        quorvix_watch_open("the child's", 0);
        /* The mapping of this test is the parent's region still: nothing arrived there. */
        return slot.startTime == 5 && slot.inactive == 1 && watch->slot.inactive == 0 &&
               std::string(watch->slot.name) == "forked";
    }));
    EXPECT_EQ(slot.startTime, 5u);
    EXPECT_EQ(slot.inactive, 1u);
    EXPECT_THROW(region.slotNamed("the child's"), std::runtime_error);
    quorvix_watch_close(watch);
}

TEST_F(ForkTest, AUnitUnderWayStaysTheParents) {
    const MappedRegion region(region_);
    quorvix_watch* watch = quorvix_watch_open("under way", 0);
    quorvix_begin(watch);
    EXPECT_TRUE(holdsInChild([&] {
        const bool inactive = watch->slot.inactive == 1;
        quorvix_end(watch);
        return inactive;
    }));
    EXPECT_EQ(region.slotNamed("under way").inactive, 0u);
    quorvix_watch_close(watch);
}

TEST_F(ForkTest, TheChildHasNoConnectionAndSendsNothing) {
    EXPECT_TRUE(holdsInChild([] {
        const quorvix_statistics statistics = statisticsNow();
        return quorvix_fence_begin(1) == ENOTCONN && statistics.connected == 0 && statistics.connections == 0;
    }));
    /* The first that comes is the parent's. */
    ASSERT_EQ(quorvix_fence_begin(2), 0);
    EXPECT_EQ(Dictionary(receiveBytes(peer_)).int64("name"), 2);
}

TEST_F(ForkTest, TheChildHasNoneOfTheLibrarysDescriptors) {
    /* Once this is here, the message that carried the region and its copy of the descriptor are gone. */
    ASSERT_EQ(quorvix_fence_begin(1), 0);
    EXPECT_EQ(Dictionary(receiveBytes(peer_)).int64("name"), 1);
    /* Connection, region, wake-up and inotify. What this test holds by itself both have. */
    const std::size_t parents = countOpenDescriptors();
    EXPECT_TRUE(holdsInChild([&] { return countOpenDescriptors() + 4 == parents; }));
}

TEST_F(ForkTest, ALivingChildDoesNotKeepTheConnection) {
    int pipes[2];
    ASSERT_EQ(pipe(pipes), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte;
        close(pipes[1]);
        _exit(read(pipes[0], &byte, 1) == 0 ? 0 : 1);
    }
    quorvix_stop();
    EXPECT_EQ(receiveBytes(peer_), stopBytes());
    EXPECT_TRUE(peer_.hasClosed());
    close(pipes[0]);
    close(pipes[1]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST_F(ForkTest, TheChildMayStartAnewAndIsWatchedByItself) {
    quorvix_watch* watch = quorvix_watch_open("both", 0);
    const pid_t child = fork();
    if (child == 0) {
        quorvix_begin(watch);
        const bool started = start() == 0;
        quorvix_begin(watch);
        const bool sent = quorvix_fence_begin(77) == 0;
        const bool done = eventually([] { return statisticsNow().messagesSent >= 3; });
        _exit(started && sent && done ? 0 : 1);
    }
    Peer childsPeer = server_.accept();
    const MappedRegion childsRegion(expectRegistration(childsPeer));
    EXPECT_EQ(Dictionary(receiveBytes(childsPeer)).int64("name"), 77);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(childsRegion.slotNamed("both").inactive, 0u);
    EXPECT_EQ(childsRegion.slotNamed("both").threadID, static_cast<std::uint64_t>(child));
    EXPECT_EQ(MappedRegion(region_).slotNamed("both").inactive, 1u);
    quorvix_watch_close(watch);
}

TEST_F(ForkTest, QueuedMessagesStayTheParents) {
    quorvix_stop();
    server_.stopListening();
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(quorvix_fence_begin(5), 0);
    EXPECT_TRUE(holdsInChild([] { return statisticsNow().queueLength == 0; }));
    server_.listenAgain();
    Peer peer = server_.accept();
    expectRegistration(peer);
    EXPECT_EQ(Dictionary(receiveBytes(peer)).int64("name"), 5);
}

}  // namespace
}  // namespace quorvix::test
