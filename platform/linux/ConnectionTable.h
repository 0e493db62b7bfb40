#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/Json.h"
#include "platform/SystemLog.h"
#include "platform/WorkQueue.h"
#include "platform/linux/MessageCodec.h"

namespace quorvix::linuxos {

class SocketConnection;

// Where the datagrams of all connections of one queue are received, one at a time: a daemon with two thousand clients
// does not need two thousand buffers. One byte more than a datagram may have, so that a longer one shows.
struct ReceiveBuffer {
    std::array<std::uint8_t, kMaximumDatagramBytes + 1> bytes;
    EntryStorage entries;
};

// What the connections of one message service share: the limits, the resumed connections by pid, the receive buffers
// and the counters. It owns a resumed connection until its invalid event was delivered. Callable from any thread.
class ConnectionTable {
public:
    struct Limits {
        std::uint32_t connections = 2048;
        // Of one user other than root: one user's apps must not shut out the others'.
        std::uint32_t connectionsAUser = 1024;
        // Still read after the peer's death. More than any socket's queue holds: it only ends a child that inherited
        // the socket and goes on sending.
        std::uint32_t datagramsAtDeath = 4096;
    };
    struct Counters {
        std::atomic<std::uint64_t> accepted{0};
        std::atomic<std::uint64_t> refusedFull{0};
        std::atomic<std::uint64_t> refusedNoDescriptor{0};
        std::atomic<std::uint64_t> acceptPauses{0};
        std::atomic<std::uint64_t> messages{0};
        std::atomic<std::uint64_t> undecodable{0};
        std::atomic<std::uint64_t> receiveErrors{0};
        std::atomic<std::uint64_t> cutAtDeath{0};
    };

    ConnectionTable(SystemLog& log, Limits limits) : log_(log, "com.norvane.quorvix", "platform"), limits_(limits) {}

    // Takes a place for a connection of this user; false: there is none, which is counted.
    bool admit(uid_t user);
    // Gives the place back.
    void leave(uid_t user);

    void add(std::shared_ptr<SocketConnection> connection);
    void remove(const SocketConnection& connection);
    std::vector<std::shared_ptr<SocketConnection>> ofPid(std::int32_t pid) const;
    std::vector<std::shared_ptr<SocketConnection>> all() const;
    // Lets go of all connections, without events.
    void clear();

    std::shared_ptr<ReceiveBuffer> bufferFor(const WorkQueue& queue);
    Counters& counters() { return counters_; }
    const Limits& limits() const { return limits_; }
    const LogHandle& log() const { return log_; }
    JsonObject selfCounters() const;

private:
    const LogHandle log_;
    const Limits limits_;
    Counters counters_;
    mutable std::mutex mutex_;
    std::uint32_t connections_ = 0;
    std::unordered_map<uid_t, std::uint32_t> connectionsOfUser_;
    std::unordered_multimap<std::int32_t, std::shared_ptr<SocketConnection>> resumed_;
    std::unordered_map<const WorkQueue*, std::weak_ptr<ReceiveBuffer>> buffers_;
};

}  // namespace quorvix::linuxos
