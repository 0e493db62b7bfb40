#include <atomic>
#include <cerrno>
#include <thread>

#include "tests/client/support/ClientTest.h"

namespace quorvix::test {
namespace {

using ConnectionTest = ClientTest;
using ConnectedTest = ConnectedClientTest;

/* Long enough for whatever would happen by a timer of the library's to happen. */
constexpr int kQuietMs = 700;

TEST_F(ConnectedTest, ConnectsOnceAndCountsIt) {
    ASSERT_TRUE(eventually([] { return statisticsNow().messagesSent >= 2; }));
    EXPECT_EQ(statisticsNow().connected, 1u);
    EXPECT_FALSE(server_.somebodyConnectsWithin(0));
    EXPECT_EQ(start(), EALREADY);
}

TEST_F(ConnectedTest, ComesBackAfterTheServerClosed) {
    peer_.close();
    Peer next = server_.accept();
    expectRegistration(next);
}

TEST_F(ConnectedTest, ComesBackWhenTheSocketIsMadeAnew) {
    server_.stopListening();
    peer_.close();
    ASSERT_TRUE(eventually([] { return statisticsNow().connected == 0; }));
    server_.listenAgain();
    Peer next = server_.accept();
    expectRegistration(next);
}

TEST_F(ConnectedTest, HandsOverTheSameRegionAgain) {
    struct stat before;
    fstat(region_.get(), &before);
    peer_.close();
    Peer next = server_.accept();
    const Descriptor again = expectRegistration(next);
    struct stat after;
    fstat(again.get(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(ConnectedTest, RegistersAgainAfterAPostedPreferenceChange) {
    for (const char* name : {"com.norvane.quorvix.pref_changed", "com.norvane.da.tasking_changed",
                             "com.norvane.Provisia.profileListChanged"}) {
        post(name);
        expectRegistration(peer_);
    }
}

TEST_F(ConnectedTest, RegistersOnceForManyPostsAtOnce) {
    for (int i = 0; i < 50; ++i) post("com.norvane.quorvix.pref_changed");
    expectRegistration(peer_);
    /* A machine that is slow enough may have spread them over two. */
    if (!peer_.isQuietFor(kQuietMs)) {
        expectRegistration(peer_);
        EXPECT_TRUE(peer_.isQuietFor(kQuietMs));
    }
}

TEST_F(ConnectedTest, OtherNotificationsMeanNothing) {
    post("com.norvane.something_else");
    EXPECT_TRUE(peer_.isQuietFor(kQuietMs));
}

TEST_F(ConnectedTest, NoticesPostsInANotifyFolderMadeAnew) {
    std::filesystem::rename(folder_.path() + "/notify", folder_.path() + "/moved");
    makeNotifyFolder();
    /* Noticed by the library's thread in its own time; only then can a post be seen. */
    ASSERT_TRUE(eventually([this] {
        post("com.norvane.quorvix.pref_changed");
        return !peer_.isQuietFor(kQuietMs);
    }));
    expectRegistration(peer_);
}

TEST_F(ConnectedTest, StoppedWatchingLastsOverReconnectionAndPosts) {
    ASSERT_EQ(quorvix_watching_stop(), 0);
    EXPECT_EQ(receiveBytes(peer_), stopBytes());
    post("com.norvane.quorvix.pref_changed");
    EXPECT_TRUE(peer_.isQuietFor(kQuietMs));
    peer_.close();
    Peer next = server_.accept();
    EXPECT_EQ(receiveBytes(next), stopBytes());
    EXPECT_TRUE(next.isQuietFor(kQuietMs));
    ASSERT_EQ(quorvix_watching_start(), 0);
    expectRegistration(next);
}

TEST_F(ConnectedTest, WhatIsQueuedGoesBeforeStoppedWatching) {
    for (int i = 0; i < 20; ++i) ASSERT_EQ(quorvix_fence_begin(i), 0);
    ASSERT_EQ(quorvix_watching_stop(), 0);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(Dictionary(receiveBytes(peer_)).int64("name"), i);
    EXPECT_EQ(receiveBytes(peer_), stopBytes());
}

TEST_F(ConnectedTest, StoppingSendsWhatIsQueuedThenStopThenCloses) {
    ASSERT_EQ(quorvix_fence_begin(3), 0);
    quorvix_stop();
    EXPECT_EQ(Dictionary(receiveBytes(peer_)).int64("command"), 6);
    EXPECT_EQ(receiveBytes(peer_), stopBytes());
    EXPECT_FALSE(peer_.receive());
    quorvix_stop();
}

TEST_F(ConnectedTest, WhatTheServerSendsDisturbsNothing) {
    const std::uint64_t before = statisticsNow().wakeUps;
    for (int i = 0; i < 20; ++i) peer_.send("noise");
    ASSERT_EQ(quorvix_fence_begin(1), 0);
    EXPECT_EQ(Dictionary(receiveBytes(peer_)).int64("command"), 6);
    EXPECT_LE(statisticsNow().wakeUps - before, 2u);
}

TEST_F(ConnectedTest, ASlowServerGetsEverythingThatFittedOnceItReads) {
    // Refused for good only once the socket is full too: until then the library's thread makes room again.
    constexpr int kRefusals = 100;
    int queued = 0;
    for (int refused = 0; refused < kRefusals;) {
        const int error = quorvix_fence_begin(queued);
        if (error == 0) {
            ++queued;
            refused = 0;
        } else {
            ASSERT_EQ(error, ENOBUFS);
            ++refused;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    EXPECT_GE(queued, 256);
    EXPECT_GE(statisticsNow().droppedQueueFull, static_cast<std::uint64_t>(kRefusals));
    for (int i = 0; i < queued; ++i) {
        ASSERT_EQ(Dictionary(receiveBytes(peer_)).int64("name"), i);
    }
    EXPECT_TRUE(eventually([] { return statisticsNow().queueLength == 0; }));
}

TEST_F(ConnectionTest, SendsWhatWasQueuedBeforeTheServerCame) {
    ASSERT_EQ(start(), 0);
    ASSERT_EQ(quorvix_fence_begin(11), 0);
    ASSERT_EQ(quorvix_fence_begin(12), 0);
    BareServer server(folder_.path());
    Peer peer = server.accept();
    expectRegistration(peer);
    EXPECT_EQ(Dictionary(receiveBytes(peer)).int64("name"), 11);
    EXPECT_EQ(Dictionary(receiveBytes(peer)).int64("name"), 12);
}

TEST_F(ConnectionTest, TheQueueIsBoundedWithoutAServer) {
    ASSERT_EQ(start(), 0);
    const std::uint64_t before = statisticsNow().droppedQueueFull;
    for (int i = 0; i < 256; ++i) ASSERT_EQ(quorvix_fence_begin(i), 0);
    EXPECT_EQ(quorvix_fence_begin(256), ENOBUFS);
    EXPECT_EQ(statisticsNow().queueLength, 256u);
    EXPECT_EQ(statisticsNow().droppedQueueFull, before + 1);
}

TEST_F(ConnectionTest, WithoutADaemonTheThreadSleepsForGood) {
    const std::uint64_t failures = statisticsNow().connectFailures;
    ASSERT_EQ(start(), 0);
    ASSERT_TRUE(eventually([&] { return statisticsNow().connectFailures > failures; }));
    const std::uint64_t wakeUps = statisticsNow().wakeUps;
    quorvix_watch* watch = quorvix_watch_open("lonely", QUORVIX_WATCH_SAVE_REPORT);
    for (int i = 0; i < 100000; ++i) {
        quorvix_begin(watch);
        quorvix_end(watch);
    }
    poll(nullptr, 0, kQuietMs); /* at the first step of the backoff it would have woken a dozen times */
    EXPECT_EQ(statisticsNow().wakeUps, wakeUps);
    EXPECT_EQ(statisticsNow().connectFailures, failures + 1);
    quorvix_watch_close(watch);
}

TEST_F(ConnectionTest, ARestartedThreadIsNotWokenByTheStopBefore) {
    for (int round = 0; round < 50; ++round) {
        /* Stopped while it is still connecting, it never comes to read the wake. */
        ASSERT_EQ(start(), 0);
        quorvix_stop();
        const quorvix_statistics before = statisticsNow();
        ASSERT_EQ(start(), 0);
        ASSERT_TRUE(eventually([&] { return statisticsNow().connectFailures > before.connectFailures; }));
        poll(nullptr, 0, 2); /* a wake left behind comes at once */
        ASSERT_EQ(statisticsNow().wakeUps, before.wakeUps) << "round " << round;
        quorvix_stop();
    }
}

TEST_F(ConnectionTest, AQueuedBurstWakesTheThreadOnceWithoutADaemon) {
    const std::uint64_t failures = statisticsNow().connectFailures;
    ASSERT_EQ(start(), 0);
    ASSERT_TRUE(eventually([&] { return statisticsNow().connectFailures > failures; }));
    const std::uint64_t wakeUps = statisticsNow().wakeUps;
    for (int i = 0; i < 100; ++i) ASSERT_EQ(quorvix_fence_begin(i), 0);
    ASSERT_TRUE(eventually([&] { return statisticsNow().wakeUps > wakeUps; }));
    EXPECT_EQ(statisticsNow().wakeUps, wakeUps + 1);
}

TEST_F(ConnectionTest, AMissingFolderIsTriedLessAndLessOften) {
    const std::string missing = folder_.path() + "/missing";
    quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = missing.c_str();
    const std::uint64_t failures = statisticsNow().connectFailures;
    ASSERT_EQ(quorvix_start(&config), 0);
    ASSERT_TRUE(eventually([&] { return statisticsNow().connectFailures >= failures + 3; }));
    std::filesystem::create_directory(missing);
    BareServer server(missing);
    Peer peer = server.accept();
    EXPECT_EQ(receiveBytes(peer), stopBytes());
}

TEST_F(ConnectionTest, ASocketThatNobodyListensOnIsTriedAgain) {
    BareServer server(folder_.path());
    const std::string path = folder_.path() + "/com.norvane.quorvixd";
    std::filesystem::rename(path, path + ".kept");
    std::ofstream(path) << "";
    const std::uint64_t failures = statisticsNow().connectFailures;
    ASSERT_EQ(start(), 0);
    ASSERT_TRUE(eventually([&] { return statisticsNow().connectFailures >= failures + 2; }));
    std::filesystem::rename(path + ".kept", path);
    Peer peer = server.accept();
    expectRegistration(peer);
}

TEST_F(ConnectionTest, UnwatchedStartsWithStopOnly) {
    BareServer server(folder_.path());
    ASSERT_EQ(start(QUORVIX_START_UNWATCHED), 0);
    Peer peer = server.accept();
    EXPECT_EQ(receiveBytes(peer), stopBytes());
    EXPECT_TRUE(peer.isQuietFor(kQuietMs));
    ASSERT_EQ(quorvix_watching_start(), 0);
    expectRegistration(peer);
}

TEST_F(ConnectionTest, TheProgramsNameIsTheDefault) {
    BareServer server(folder_.path());
    quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.socketDirectory = folder_.path().c_str();
    ASSERT_EQ(quorvix_start(&config), 0);
    Peer peer = server.accept();
    EXPECT_EQ(receiveBytes(peer), stopBytes());
    EXPECT_EQ(Dictionary(receiveBytes(peer)).string("name"), program_invocation_short_name);
}

TEST_F(ConnectionTest, AConfigThatMakesNoSenseIsRefused) {
    quorvix_config config = QUORVIX_CONFIG_DEFAULT;
    config.structSize = 8;
    EXPECT_EQ(quorvix_start(&config), EINVAL);
    config = QUORVIX_CONFIG_DEFAULT;
    config.flags = 2;
    EXPECT_EQ(quorvix_start(&config), EINVAL);
    config = QUORVIX_CONFIG_DEFAULT;
    const std::string tooLong(200, 'd');
    config.socketDirectory = tooLong.c_str();
    EXPECT_EQ(quorvix_start(&config), ENAMETOOLONG);
    EXPECT_EQ(start(), 0);
}

TEST_F(ConnectionTest, StatisticsFillOnlyWhatTheCallerKnows) {
    quorvix_statistics statistics;
    std::memset(&statistics, 0x55, sizeof statistics);
    quorvix_read_statistics(&statistics, sizeof(std::uint64_t));
    EXPECT_LE(statistics.connected, 1u);
    EXPECT_EQ(statistics.connections, 0x5555555555555555u);
}

TEST_F(ConnectedTest, SurvivesManyThreadsAndRestartsAtOnce) {
    std::atomic<bool> done{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&done] {
            quorvix_watch* watch = quorvix_watch_open("busy", 0);
            while (!done) {
                quorvix_begin(watch);
                (void)quorvix_fence_begin(1);
                (void)statisticsNow();
                quorvix_end(watch);
            }
            quorvix_watch_close(watch);
        });
    }
    std::thread reader([&] {
        while (peer_.receive(kQuietMs)) {
        }
    });
    for (int i = 0; i < 20; ++i) {
        quorvix_watching_stop();
        quorvix_watching_start();
        quorvix_stop();
        EXPECT_EQ(start(), 0);
        server_.accept();
    }
    done = true;
    for (std::thread& thread : threads) thread.join();
    reader.join();
    quorvix_stop();
    ASSERT_EQ(start(), 0);
    Peer last = server_.accept();
    expectRegistration(last);
}

}  // namespace
}  // namespace quorvix::test
