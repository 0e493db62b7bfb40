#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulate/Dice.h"
#include "simulate/World.h"

namespace quorvix::simulate {

// What can happen from outside; the name is what the command line calls it.
enum class ActionKind : std::uint8_t {
    start,       // a client's process begins, with a region or without
    watch,       // sends its region: a good one, or one that lies
    stop,        // stops being watched
    work,        // its main thread begins a unit of work
    rest,        // and ends one
    hang,        // reports a hang by itself
    fence,       // begins, ends or blows a fence
    activation,  // an activation begins or ends
    burst,       // many activations begin and end, one after the other
    garbage,     // what is not understood
    death,       // the process dies, or its connection does
    lie,         // the client writes into its header
    preference,  // an administrator changes a preference
    profile,     // the managed profile changes
    clock,       // the wall clock steps
    zone,        // the device travels
    suspend,     // and sleeps
    unlock,      // first unlock
    pressure,    // memory runs short: the figures of processes and host move
    processes,   // processes use CPU time, come and go
    fault,       // a call of the platform will go wrong
    late,        // timers use their leeways otherwise, or nothing wakes the daemon for a while
    library,     // the trace library comes, goes, or lacks its function
    restart,     // the daemon is ended and started
    listener,    // the listener itself sees an error
    count
};
std::string_view nameOf(ActionKind kind);
std::optional<ActionKind> kindNamed(std::string_view name);

// One thing that happens. All its choices come from its own dice, so that it is the same whichever others are left out.
struct Action {
    std::uint64_t index = 0;
    std::chrono::nanoseconds gap{0};  // after the action before it
    ActionKind kind = ActionKind::count;
    Dice dice{0};
};
Action actionOf(std::uint64_t seed, std::uint64_t index);

// The clients of the device and whatever else happens to it.
class Fleet {
public:
    Fleet(World& world, std::uint64_t clients);
    // The device as the seed makes it, before the daemon starts.
    void setUp(Dice dice);
    void apply(Action action);
    // Every client goes.
    void everyoneDies();

private:
    // What keeps the daemon running.
    enum class Source : std::uint8_t { none, hang, memory, activation };
    struct Client {
        std::int32_t pid = 0;  // 0: no process
        std::optional<Connection> connection;
        // Of the same process: what it sends counts as well, and its end is as good as the first one's.
        std::optional<Connection> second;
        Region region;
        bool alive() const { return pid != 0; }
        const Connection& anyConnection(Dice& dice) const { return second && dice.oneIn(2) ? *second : *connection; }
    };
    // What a begin says of its activation, for the end that answers it.
    struct Begun {
        std::int64_t pid;
        std::string_view bundle;
    };

    Client& pick(Dice& dice) { return clients_[dice.below(clients_.size())]; }
    // The client, started and connected if it is not.
    Client& pickAlive(Dice& dice);
    void begin(Client& client, Dice& dice);
    void connect(Client& client);
    void watch(Client& client, Dice& dice);
    void work(Client& client, Dice& dice);
    void hang(Client& client, Dice& dice);
    void fence(Client& client, Dice& dice);
    void activation(Client& client, Dice& dice);
    void burst(Client& client, Dice& dice);
    Begun beginActivation(Client& client, Dice& dice);
    void endActivation(Client& client, const Begun& begun, Dice& dice);
    void garbage(Client& client, Dice& dice);
    void death(Client& client, Dice& dice);
    void lie(Client& client, Dice& dice);
    void preference(Dice& dice);
    void profile(Dice& dice);
    void clock(Dice& dice);
    void zone(Dice& dice);
    void pressure(Dice& dice);
    void processes(Dice& dice);
    void fault(Dice& dice);
    void late(Dice& dice);
    void restart(Dice& dice);
    void listener(Dice& dice);
    // The daemon starts, and what of the clients holds on connects again.
    void startDaemon(Dice& dice);
    void forgetConnections();
    void post(Dice& dice);
    // Most notifications come at once, some later than what is changed next.
    static std::chrono::milliseconds delay(Dice& dice);

    World& world_;
    // What the seed makes of this run: the share of the restarts that take place, 0 for none, and the source that is
    // never switched off, so that the daemon doesn't end every few hours because all are.
    std::uint64_t restartOneIn_ = 0;
    Source kept_ = Source::none;
    std::vector<Client> clients_;
    std::int32_t nextPid_ = 1000;
    std::vector<std::int32_t> freePids_;
};

}  // namespace quorvix::simulate
