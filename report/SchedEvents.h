#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "report/ProtoFields.h"

namespace quorvix::report {

// The kernel's thread states as scheduling events carry them; one bit each, 0 is "wants to run".
namespace thread_state {
inline constexpr std::uint32_t kInterruptible = 0x01;
inline constexpr std::uint32_t kUninterruptible = 0x02;
inline constexpr std::uint32_t kStopped = 0x04;
inline constexpr std::uint32_t kTraced = 0x08;
inline constexpr std::uint32_t kDead = 0x10;
inline constexpr std::uint32_t kZombie = 0x20;
inline constexpr std::uint32_t kParked = 0x40;
inline constexpr std::uint32_t kIdle = 0x80;
inline constexpr std::uint32_t kAll = 0xff;
}  // namespace thread_state

inline constexpr std::int32_t kNoThread = -1;
inline constexpr std::int32_t kIdleThread = 0;  // what a CPU runs that has nothing to run

// A CPU went from one thread to another, or a thread was woken. Times are CLOCK_MONOTONIC nanoseconds.
struct SchedEvent {
    enum class Kind : std::uint8_t { switched, woken };
    Kind kind = Kind::switched;
    bool byInterrupt = false;  // woken: the CPU was serving an interrupt, its thread has no part in it
    std::uint32_t cpu = 0;
    std::uint64_t timeNs = 0;
    std::int32_t previous = kNoThread;  // switched: who left the CPU; woken: who was on it. kNoThread: not known
    std::int32_t next = kNoThread;      // switched: who came; woken: whom it woke
    std::uint32_t previousState = 0;    // switched: in which state it left
    // switched: the CPU was idle by all that was recorded, since then, and yet `previous` was on it. Some kernels
    // record no switch of a CPU that leaves idling. 0: not so.
    std::uint64_t idleSinceNs = 0;
    std::int32_t targetCpu = kNoThread;  // woken: the CPU in whose line it is put
    std::string_view nextName;           // lives as long as the bundle
};

// Reads the scheduling events out of one bundle after the other, plain and compact ones, and gives them in the order of
// their times within each bundle. Keeps from bundle to bundle who runs on each CPU: compact events name only the thread
// that comes. One decoder a walk over the file.
class SchedDecoder {
public:
    // Events of one bundle at most: a writer makes far shorter ones.
    static constexpr std::size_t kLongestBundle = std::size_t{1} << 20;
    // More CPUs than any machine has.
    static constexpr std::uint32_t kMostCpus = 8192;

    using Visitor = std::function<void(const SchedEvent&)>;

    // The true times of the switches that stand at the window's begin in the file because they were before it, by CPU.
    explicit SchedDecoder(std::map<std::uint32_t, std::uint64_t> clamped = {}) : clamped_(std::move(clamped)) {}

    // False: the bundle is damaged; what is before the damage was visited.
    bool decode(Bytes bundle, const Visitor& visit);

private:
    struct CpuState {
        std::int32_t running = kNoThread;
        std::uint64_t sinceNs = 0;
        bool hasSwitched = false;
    };

    bool takeEvent(Bytes message);
    bool takeCompact(Bytes message);

    std::map<std::uint32_t, std::uint64_t> clamped_;
    std::map<std::uint32_t, CpuState> cpus_;
    std::vector<SchedEvent> events_;
    std::vector<std::uint64_t> lists_[13];
    std::vector<std::string_view> names_;
};

}  // namespace quorvix::report
