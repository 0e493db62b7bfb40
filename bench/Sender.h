#pragma once

#include <cstdint>
#include <functional>

namespace quorvix::bench {

// A process of its own that sends when it is told to, on the CPU of whoever made it. Made before the benchmark has
// threads; ends with its object.
class Sender {
public:
    // `send` runs in the process: it sends everything and returns.
    explicit Sender(std::function<void()> send);
    ~Sender();
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    // Starts one run; returns at once.
    void start();

private:
    int commands_ = -1;
    int process_ = -1;
};

// Messages of one run of a message channel.
inline constexpr std::uint32_t kPayloadBytes = 200;

}  // namespace quorvix::bench
