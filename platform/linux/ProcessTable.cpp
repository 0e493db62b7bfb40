#include "platform/linux/ProcessTable.h"

#include <algorithm>
#include <cerrno>

#include "platform/quorvix_ticks.h"

namespace quorvix::linuxos {

namespace {

// From the parts, like the clock's own conversion: three times a whole count could overflow.
std::uint64_t ticksOf(std::uint64_t nanoseconds) {
    constexpr std::uint64_t kSecond = 1'000'000'000;
    return nanoseconds / kSecond * QUORVIX_TICKS_PER_SECOND + nanoseconds % kSecond * 3 / 125;
}

}  // namespace

ProcessTable::ProcessTable(std::vector<std::unique_ptr<ProcessSource>> sources, SystemLog* log)
    : sources_(std::move(sources)), log_(log) {}

int ProcessTable::freeze() {
    lastFound_ = 0;
    for (;;) {
        const int error = next_ < sources_.size() ? sources_[next_]->read(samples_) : ENOSYS;
        if (error == 0) break;
        // The last source stays: what kept it from reading may pass.
        if (next_ + 1 >= sources_.size()) {
            samples_.clear();
            return error;
        }
        retire(error);
    }
    ++reads_;
    ledger_.update(samples_);
    return 0;
}

void ProcessTable::retire(int error) {
    sources_[next_].reset();
    ++next_;
    if (!log_) return;
    LogHandle(*log_, "com.norvane.quorvix", "platform")
        .standard("Process snapshots come from procfs: the kernel's task iterator can't be used: %@", ErrorCode{error});
}

std::ptrdiff_t ProcessTable::find(std::int32_t pid) {
    const auto& processes = samples_.processes;
    for (std::size_t place = lastFound_; place < std::min(lastFound_ + 2, processes.size()); ++place) {
        if (processes[place].pid != pid) continue;
        lastFound_ = place;
        return static_cast<std::ptrdiff_t>(place);
    }
    const auto found = std::lower_bound(processes.begin(), processes.end(), pid,
                                        [](const ProcessSample& process, std::int32_t id) { return process.pid < id; });
    if (found == processes.end() || found->pid != pid) return -1;
    lastFound_ = static_cast<std::size_t>(found - processes.begin());
    return found - processes.begin();
}

ResourceUsage ProcessTable::usage(std::size_t place) const {
    const ProcessSample& process = samples_.processes[place];
    const CpuTimes& times = ledger_.times()[place];
    const auto classTicks = [&](QosClass qosClass) {
        return ticksOf(times.classNs[static_cast<std::size_t>(qosClass)]);
    };
    ResourceUsage usage{};
    usage.userTime = ticksOf(times.userNs);
    usage.systemTime = ticksOf(times.systemNs);
    usage.pageIns = process.majorFaults;
    usage.wiredSize = process.wiredBytes;
    usage.residentSize = process.residentBytes;
    usage.physicalFootprint = process.footprintBytes;
    usage.startTime = process.startUnits * (QUORVIX_TICKS_PER_SECOND / kStartUnitsPerSecond);
    usage.diskBytesRead = process.diskBytesRead;
    usage.diskBytesWritten = process.diskBytesWritten;
    usage.unspecifiedTime = classTicks(QosClass::unspecified);
    usage.maintenanceTime = classTicks(QosClass::maintenance);
    usage.backgroundTime = classTicks(QosClass::background);
    usage.utilityTime = classTicks(QosClass::utility);
    usage.legacyTime = classTicks(QosClass::legacy);
    usage.userInitiatedTime = classTicks(QosClass::userInitiated);
    usage.userInteractiveTime = classTicks(QosClass::userInteractive);
    return usage;
}

}  // namespace quorvix::linuxos
