// The ways in which a main thread can hang, each imposed for real.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace quorvix::demo {

// One tenth of a second is imposed in parts: long beside a scheduler's slice, short beside the 5 s that make a hang.
inline constexpr std::chrono::milliseconds kPeriod{100};

// One way to hang. Lives on the main thread of the hanging app. Helping threads and processes end with it, and with
// the app however that ends.
class Hang {
public:
    explicit Hang(double share) : share_(share) {}
    virtual ~Hang() = default;

    // Makes what the hang needs, before the process has a second thread. Gives why it can't be had, or an empty text.
    virtual std::string prepare() { return {}; }
    // One period on the calling thread, or one stretch of at most `left` where the whole time is imposed.
    virtual void impose(std::chrono::nanoseconds left) = 0;

protected:
    // How long the next stretch of the kind is.
    std::chrono::nanoseconds imposed(std::chrono::nanoseconds left) const {
        if (share_ >= 1) return left;
        return std::chrono::duration_cast<std::chrono::nanoseconds>(kPeriod * share_);
    }
    // What a period has besides it.
    std::chrono::nanoseconds rest() const {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(kPeriod * (1 - share_));
    }

private:
    double share_;
};

// Null for a name that is no kind: "busy", "starved", "blocked", "io" or "stopped".
std::unique_ptr<Hang> makeHang(std::string_view kind, double share);

}  // namespace quorvix::demo
