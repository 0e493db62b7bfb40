#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "platform/Json.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/WorkQueue.h"

namespace quorvix::linuxos {

// One published state: the listening socket and the readers that are being served. On its queue only.
class StateSocket : public std::enable_shared_from_this<StateSocket> {
public:
    struct Counters {
        std::atomic<std::uint64_t> served{0};
        std::atomic<std::uint64_t> refusedFull{0};
        std::atomic<std::uint64_t> refusedUser{0};
        std::atomic<std::uint64_t> droppedSlow{0};
    };

    StateSocket(Descriptor socket, std::shared_ptr<LinuxWorkQueue> queue, std::function<JsonObject()> provider);

    // Starts to accept, from any thread.
    void resume();
    // Ends everything; with the queue's thread ended.
    void abandon();
    const Counters& counters() const { return counters_; }

private:
    struct Reader {
        Descriptor socket;
        std::unique_ptr<DescriptorWatch> watch;
        std::string text;
        std::size_t written = 0;
    };

    void start();
    void acceptOne();
    void rest();
    void serve(Descriptor socket);
    // Writes what the socket takes now. True: it is done with, all written or broken.
    static bool write(Reader& reader);
    void drop(std::uint64_t number);

    Descriptor socket_;
    std::shared_ptr<LinuxWorkQueue> queue_;
    std::function<JsonObject()> provider_;
    std::unique_ptr<DescriptorWatch> watch_;
    std::unordered_map<std::uint64_t, Reader> readers_;
    std::uint64_t nextReader_ = 1;
    Counters counters_;
};

}  // namespace quorvix::linuxos
