#pragma once

#include <deque>
#include <memory>
#include <string>

#include "swivex/Ring.h"
#include "swivex/RingText.h"

namespace quorvix::swivex {

// The rings as text, for kernels that can't map them: slower, and with times in whole microseconds. Reading text
// neither consumes the ring nor stops it, where the instance does not pause on it; older kernels stop it while the file
// is open.
class TextRing final : public Ring {
public:
    // So many events of a CPU are kept at most, the newest.
    static constexpr std::size_t kMostEvents = 100'000;

    static Outcome<std::unique_ptr<Ring>> open(const TraceInstance& instance);

    std::string_view kind() const override { return "text"; }
    std::vector<unsigned> cpus() const override { return cpus_; }
    Outcome<RingHolding> load(unsigned cpu, std::uint64_t fromNs, const Deadline& deadline) override;
    bool visit(std::uint64_t fromNs, std::uint64_t toNs, const Deadline& deadline, const Visit& event) override;
    void visitEarlier(std::uint64_t beforeNs, const Deadline& deadline, const Visit& event,
                      const std::function<bool()>& endOfPiece) override;

private:
    explicit TextRing(TraceInstance instance) : instance_(std::move(instance)) {}

    // One line of the file, if it is an event's.
    void take(std::string_view line);

    const TraceInstance instance_;
    std::vector<unsigned> cpus_;
    // Kept as text: taken apart it would be five times as long.
    struct Line {
        std::uint64_t timeNs = 0;
        std::string text;
    };
    std::deque<Line> lines_;  // of the CPU that is loaded, oldest first
    bool leftOut_ = false;    // events older than these were in the file
    TextEvent scratch_;
};

}  // namespace quorvix::swivex
