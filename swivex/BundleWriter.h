#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "swivex/Event.h"
#include "swivex/PacketBuffer.h"

namespace quorvix::swivex {

// The two clocks, read back to back: what ties a bundle's times to the file's clock snapshot.
struct ClockPair {
    std::uint64_t monotonicNs = 0;
    std::uint64_t bootNs = 0;
    std::uint64_t realNs = 0;
};

// Writes one CPU's events, oldest first, as bundles. Switches and wakings go into columns, a few bytes each; whatever a
// column has no place for is an event of its own. A switch in a column does not say which thread it takes the place of:
// that is the thread of the switch before. Where that is not so (at a CPU's first switch, after a gap) it is written as
// an event of its own.
class BundleWriter {
public:
    // The file's first bundle begins its sequence. All three outlive the writer.
    BundleWriter(PacketBuffer& file, unsigned cpu, const ClockPair& clocks) : file_(file), cpu_(cpu), clocks_(clocks) {}
    ~BundleWriter() = default;
    BundleWriter(const BundleWriter&) = delete;
    BundleWriter& operator=(const BundleWriter&) = delete;

    void add(const Event& event);
    // Events are missing before the one that comes next.
    void lost();
    // Writes what is left.
    void finish() { flush(); }
    std::uint64_t events() const { return events_; }

private:
    static constexpr std::size_t kMostEvents = 2000;
    // Of events that stand by themselves: two thousand marker lines could be longer than readers take at once.
    static constexpr std::size_t kMostPlainBytes = std::size_t{128} << 10;

    void addSwitch(const Event& event);
    void addWaking(const Event& event);
    // As a message of its own in the bundle.
    void addPlain(const Event& event);
    std::uint64_t indexOf(std::string_view comm);
    void flush();

    PacketBuffer& file_;
    const unsigned cpu_;
    const ClockPair& clocks_;

    std::optional<std::int32_t> running_;  // the thread of the switch before
    bool lost_ = false;
    std::uint64_t events_ = 0;

    // The bundle that is being filled.
    std::size_t count_ = 0;
    std::uint64_t firstNs_ = 0;
    PacketWriter plain_;
    std::unordered_map<std::string, std::uint64_t> commIndexes_;
    std::vector<std::string> comms_;
    struct Column {
        std::vector<std::uint8_t> bytes;
        void add(std::uint64_t value) { appendVarint(bytes, value); }
    };
    struct {
        std::uint64_t lastNs = 0;
        Column timestamp, prevState, nextPid, nextPrio, nextComm;
    } switches_;
    struct {
        std::uint64_t lastNs = 0;
        Column timestamp, pid, targetCpu, prio, comm, commonFlags;
    } wakings_;
};

}  // namespace quorvix::swivex
