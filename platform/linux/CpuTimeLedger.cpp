#include "platform/linux/CpuTimeLedger.h"

#include <algorithm>
#include <numeric>

namespace quorvix::linuxos {

namespace {

// value * numerator / denominator for products beyond 64 bits. Precondition: denominator > 0.
std::uint64_t scaled(std::uint64_t value, std::uint64_t numerator, std::uint64_t denominator) {
    __extension__ using Wide = unsigned __int128;
    return static_cast<std::uint64_t>(Wide{value} * numerator / denominator);
}

// The kernel measures the sum exactly and its division into user and system only by sampling, so the sum is divided in
// the samples' ratio. Neither may shrink, even where the ratio moved.
void split(CpuTimes& times, std::uint64_t totalNs, const ProcessSample& process) {
    const std::uint64_t shares = process.userShare + process.systemShare;
    std::uint64_t user = totalNs;
    if (process.isKernelThread) {
        user = 0;
    } else if (shares > 0) {
        user = scaled(totalNs, process.userShare, shares);
    }
    user = std::max(times.userNs, std::min(user, totalNs - times.systemNs));
    times.userNs = user;
    times.systemNs = totalNs - user;
}

}  // namespace

std::uint64_t CpuTimes::totalNs() const { return std::accumulate(classNs.begin(), classNs.end(), std::uint64_t{0}); }

void CpuTimeLedger::update(const ProcessSamples& samples) {
    spare_.clear();
    std::size_t old = 0;
    for (const ProcessSample& process : samples.processes) {
        while (old < processes_.size() && processes_[old].pid < process.pid) ++old;
        const bool same = old < processes_.size() && processes_[old].pid == process.pid &&
                          processes_[old].startUnits == process.startUnits;
        spare_.push_back(next(process, samples, same ? &processes_[old] : nullptr, same ? &times_[old] : nullptr));
    }
    times_.swap(spare_);
    threads_.assign(samples.threads.begin(), samples.threads.end());
    processes_.clear();
    for (const ProcessSample& process : samples.processes) {
        processes_.push_back({process.pid, process.startUnits, process.firstThread, process.threadCount});
    }
}

CpuTimes CpuTimeLedger::next(const ProcessSample& process, const ProcessSamples& samples, const Process* before,
                             const CpuTimes* timesBefore) const {
    CpuTimes times = timesBefore ? *timesBefore : CpuTimes{};
    const ThreadSample* old = before ? threads_.data() + before->firstThread : nullptr;
    const ThreadSample* const oldEnd = before ? old + before->threadCount : nullptr;
    const ThreadSample* const first = samples.threads.data() + process.firstThread;
    for (const ThreadSample* thread = first; thread != first + process.threadCount; ++thread) {
        while (old != oldEnd && old->tid < thread->tid) ++old;
        const bool known = old != oldEnd && old->tid == thread->tid && old->startUnits == thread->startUnits;
        times.of(thread->qosClass) += thread->runtimeNs - (known ? std::min(old->runtimeNs, thread->runtimeNs) : 0);
    }
    // What is left of the whole was used by threads that are gone, as far as it was not counted while they lived.
    const std::uint64_t counted = times.totalNs();
    if (process.runtimeNs > counted) times.of(QosClass::unspecified) += process.runtimeNs - counted;
    split(times, times.totalNs(), process);
    return times;
}

}  // namespace quorvix::linuxos
