/* A folder, a bare server in it, and the library started against it. */
#ifndef QUORVIX_TESTS_CLIENT_CLIENTTEST_H
#define QUORVIX_TESTS_CLIENT_CLIENTTEST_H

#include <gtest/gtest.h>

#include "quorvix.h"
#include "tests/client/support/BareServer.h"
#include "tests/client/support/Dictionary.h"

namespace quorvix::test {

inline quorvix_statistics statisticsNow() {
    quorvix_statistics statistics;
    quorvix_read_statistics(&statistics, sizeof statistics);
    return statistics;
}

class ClientTest : public testing::Test {
protected:
    ~ClientTest() override { quorvix_stop(); }

    int start(std::uint32_t flags = 0) {
        quorvix_config config = QUORVIX_CONFIG_DEFAULT;
        config.flags = flags;
        config.name = "an app";
        config.socketDirectory = folder_.path().c_str();
        return quorvix_start(&config);
    }

    static std::string stopBytes() { return Wire().int64("command", 2).bytes(); }
    static std::string startBytes() {
        return Wire().int64("command", 1).sharedMemory("shmem", 0).string("name", "an app").bytes();
    }

    /* Expects stop and start and gives back the region's descriptor. */
    static Descriptor expectRegistration(Peer& peer) {
        const auto stop = peer.receive();
        EXPECT_TRUE(stop);
        if (!stop) return Descriptor();
        EXPECT_EQ(stop->bytes, stopBytes());
        EXPECT_TRUE(stop->descriptors.empty());
        auto begin = peer.receive();
        EXPECT_TRUE(begin);
        if (!begin) return Descriptor();
        EXPECT_EQ(begin->bytes, startBytes());
        EXPECT_EQ(begin->descriptors.size(), 1u);
        return begin->descriptors.empty() ? Descriptor() : std::move(begin->descriptors[0]);
    }
    static std::string receiveBytes(Peer& peer) {
        const auto datagram = peer.receive();
        return datagram ? datagram->bytes : "nothing";
    }

    void makeNotifyFolder() { std::filesystem::create_directory(folder_.path() + "/notify"); }
    void post(const std::string& name) { std::ofstream(folder_.path() + "/notify/" + name) << "posted"; }

    TemporaryFolder folder_;
};

/* With a server that is there from the start and one registered connection. */
class ConnectedClientTest : public ClientTest {
protected:
    ConnectedClientTest() : server_(prepareFolder()), peer_(startAndAccept()), region_(expectRegistration(peer_)) {}

    BareServer server_;
    Peer peer_;
    Descriptor region_;

private:
    const std::string& prepareFolder() {
        makeNotifyFolder();
        return folder_.path();
    }
    Peer startAndAccept() {
        EXPECT_EQ(start(), 0);
        return server_.accept();
    }
};

}  // namespace quorvix::test

#endif
