#include "report/CpuUse.h"

#include <algorithm>

namespace quorvix::report {

void CpuUse::count(std::int32_t tid, std::uint64_t fromNs, std::uint64_t untilNs) {
    const std::uint64_t ran = Interval{fromNs, untilNs}.common(interval_).length();
    if (ran == 0 || tid == kNoThread) return;
    if (ranNs_.size() >= kMostThreads && !ranNs_.contains(tid)) return;
    ranNs_[tid] += ran;
}

void CpuUse::add(const SchedEvent& event) {
    if (event.kind != SchedEvent::Kind::switched) return;
    // The first switch of a CPU tells who was on it before.
    const auto [cpu, isNew] = cpus_.try_emplace(event.cpu, Cpu{.running = event.previous, .sinceNs = 0});
    count(cpu->second.running, cpu->second.sinceNs, event.timeNs);
    cpu->second = {.running = event.next, .sinceNs = event.timeNs};
}

CpuUse::Summary CpuUse::finish() {
    Summary summary;
    summary.cpus = cpus_.size();
    for (const auto& [number, cpu] : cpus_) count(cpu.running, cpu.sinceNs, interval_.endNs);
    cpus_.clear();
    for (const auto& [tid, ranNs] : ranNs_) {
        if (tid == kIdle) {
            summary.idleNs = ranNs;
        } else {
            summary.users.push_back({.tid = tid, .ranNs = ranNs});
        }
    }
    std::ranges::sort(summary.users, [](const Use& one, const Use& other) {
        return one.ranNs != other.ranNs ? one.ranNs > other.ranNs : one.tid < other.tid;
    });
    return summary;
}

}  // namespace quorvix::report
