// What a unit of work costs the app: begin and end against one bare read of the clock.

#include <atomic>

#include "bench/Bench.h"
#include "client/quorvix.h"

using namespace quorvix::bench;

namespace {

constexpr int kRounds = 41;
constexpr int kUnits = 400'000;

// Not inlined, so that neither loop is optimised together with the other.
[[gnu::noinline]] double unitOfWorkNs(quorvix_watch* watch) {
    const double begin = nowNs();
    for (int i = 0; i < kUnits; ++i) {
        quorvix_begin(watch);
        // Between them an app does its work: the compiler must not fold the two stores into one.
        std::atomic_signal_fence(std::memory_order_seq_cst);
        quorvix_end(watch);
    }
    return (nowNs() - begin) / kUnits;
}

[[gnu::noinline]] double bareClockNs() {
    timespec time;
    const double begin = nowNs();
    for (int i = 0; i < kUnits; ++i) {
        clock_gettime(CLOCK_MONOTONIC, &time);
        asm volatile("" : : "r"(&time) : "memory");
    }
    return (nowNs() - begin) / kUnits;
}

}  // namespace

int main() {
    pinToOneCpu();
    quorvix_watch* const watch = quorvix_watch_open("bench", 0);
    unitOfWorkNs(watch);
    bareClockNs();

    Comparison publish("publish", "ns");
    for (int round = 0; round < kRounds; ++round) {
        const double floor = bareClockNs();
        publish.add(unitOfWorkNs(watch), floor);
    }
    require(watch->slot.startTime != 0 && watch->slot.inactive == 1, "the units of work were not published");
    publish.print(Goal::atMost, 1.25);
    quorvix_watch_close(watch);
}
