#include "platform/linux/ConnectionTable.h"

#include <bit>
#include <utility>

#include "platform/linux/SocketConnection.h"

namespace quorvix::linuxos {

bool ConnectionTable::admit(uid_t user) {
    const std::lock_guard lock(mutex_);
    std::uint32_t& ofUser = connectionsOfUser_[user];
    if (connections_ < limits_.connections && (user == 0 || ofUser < limits_.connectionsAUser)) {
        ++connections_;
        ++ofUser;
        return true;
    }
    if (ofUser == 0) connectionsOfUser_.erase(user);
    const std::uint64_t refused = ++counters_.refusedFull;
    // Said at 1, 2, 4, 8 …: a client that keeps trying must not fill the log.
    if (std::has_single_bit(refused)) {
        log_.standard("message service: too many connections, %llu refused so far, the last one of user %u", refused,
                      std::uint32_t{user});
    }
    return false;
}

void ConnectionTable::leave(uid_t user) {
    const std::lock_guard lock(mutex_);
    --connections_;
    const auto ofUser = connectionsOfUser_.find(user);
    if (ofUser != connectionsOfUser_.end() && --ofUser->second == 0) connectionsOfUser_.erase(ofUser);
}

void ConnectionTable::add(std::shared_ptr<SocketConnection> connection) {
    const std::lock_guard lock(mutex_);
    const std::int32_t pid = connection->pid();
    resumed_.emplace(pid, std::move(connection));
}

void ConnectionTable::remove(const SocketConnection& connection) {
    // Released outside the lock: the last reference may go with it.
    std::shared_ptr<SocketConnection> released;
    const std::lock_guard lock(mutex_);
    const auto [first, last] = resumed_.equal_range(connection.pid());
    for (auto at = first; at != last; ++at) {
        if (at->second.get() != &connection) continue;
        released = std::move(at->second);
        resumed_.erase(at);
        return;
    }
}

std::vector<std::shared_ptr<SocketConnection>> ConnectionTable::ofPid(std::int32_t pid) const {
    std::vector<std::shared_ptr<SocketConnection>> found;
    const std::lock_guard lock(mutex_);
    const auto [first, last] = resumed_.equal_range(pid);
    for (auto at = first; at != last; ++at) found.push_back(at->second);
    return found;
}

std::vector<std::shared_ptr<SocketConnection>> ConnectionTable::all() const {
    std::vector<std::shared_ptr<SocketConnection>> found;
    const std::lock_guard lock(mutex_);
    for (const auto& [pid, connection] : resumed_) found.push_back(connection);
    return found;
}

void ConnectionTable::clear() {
    std::unordered_multimap<std::int32_t, std::shared_ptr<SocketConnection>> released;
    {
        const std::lock_guard lock(mutex_);
        released.swap(resumed_);
    }
    for (const auto& [pid, connection] : released) connection->abandon();
}

std::shared_ptr<ReceiveBuffer> ConnectionTable::bufferFor(const WorkQueue& queue) {
    const std::lock_guard lock(mutex_);
    std::weak_ptr<ReceiveBuffer>& known = buffers_[&queue];
    std::shared_ptr<ReceiveBuffer> buffer = known.lock();
    if (!buffer) {
        buffer = std::make_shared<ReceiveBuffer>();
        known = buffer;
    }
    return buffer;
}

JsonObject ConnectionTable::selfCounters() const {
    const std::lock_guard lock(mutex_);
    return {{"connections", connections_},
            {"accepted", counters_.accepted.load()},
            {"refusedFull", counters_.refusedFull.load()},
            {"refusedNoDescriptor", counters_.refusedNoDescriptor.load()},
            {"acceptPauses", counters_.acceptPauses.load()},
            {"messages", counters_.messages.load()},
            {"undecodable", counters_.undecodable.load()},
            {"receiveErrors", counters_.receiveErrors.load()},
            {"cutAtDeath", counters_.cutAtDeath.load()}};
}

}  // namespace quorvix::linuxos
