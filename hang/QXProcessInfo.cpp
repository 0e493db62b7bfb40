#include "hang/QXProcessInfo.h"

#include <algorithm>

#include "hang/HangChannel.h"
#include "hang/HangState.h"
#include "platform/Platform.h"
#include "service/Log.h"

namespace quorvix {

namespace {

// A check of one region takes about half as long as its memory takes to arrive.
constexpr std::size_t kPrefetchDistance = 2;

}  // namespace

std::shared_ptr<QXProcessInfo> QXProcessInfo::startWatchingPid(std::int32_t pid, void* sharedMem,
                                                               std::uint64_t length) {
    if (const auto watched = processForPid(pid)) {
        quorvixLog().standard("WARNING: %@ was already being watched.", watched->description());
        return nullptr;
    }
    auto process = initWithPid(pid, sharedMem, length);
    if (process) hangState().watchedProcesses.push_back(process);
    return process;
}

void QXProcessInfo::stopWatchingPid(std::int32_t pid) {
    auto& watched = hangState().watchedProcesses;
    const auto found =
        std::find_if(watched.begin(), watched.end(), [pid](const auto& process) { return process->pid_ == pid; });
    if (found == watched.end()) return;
    // The record may go with its last reference; it must not find itself in the list then.
    const std::shared_ptr<QXProcessInfo> process = std::move(*found);
    watched.erase(found);
}

void QXProcessInfo::stopWatchingAllPids() {
    std::vector<std::shared_ptr<QXProcessInfo>> dropped;
    dropped.swap(hangState().watchedProcesses);
}

std::shared_ptr<QXProcessInfo> QXProcessInfo::processForPid(std::int32_t pid) {
    for (const auto& process : hangState().watchedProcesses) {
        if (process->pid_ == pid) return process;
    }
    return nullptr;
}

std::shared_ptr<QXProcessInfo> QXProcessInfo::processForFenceHangs() {
    const auto& watched = hangState().watchedProcesses;
    if (watched.empty()) return nullptr;
    return watched[platform().random.uniform(static_cast<std::uint32_t>(watched.size()))];
}

void QXProcessInfo::checkForHangTimeouts(std::uint64_t now) {
    HangState& state = hangState();
    // Nothing in the walk changes the list: a process whose region faults is only noted, and dropped below.
    const auto& watched = state.watchedProcesses;
    for (std::size_t i = 0; i < watched.size(); ++i) {
        if (i + kPrefetchDistance < watched.size()) {
            const QXProcessInfo& later = *watched[i + kPrefetchDistance];
            prefetchHangChannel({later.shmem_region, later.shmem_length});
        }
        watched[i]->checkEventsForTimeouts(now);
    }
    if (state.faultedProcesses.empty()) return;
    for (const QXProcessInfo* const faulted : state.faultedProcesses) {
        ++state.regionFaults;
        platformLog().standard("The hang channel of %@ can't be read: it is no longer watched", faulted->description());
        std::erase_if(state.watchedProcesses, [faulted](const auto& process) { return process.get() == faulted; });
    }
    state.faultedProcesses.clear();
}

std::string QXProcessInfo::description() const { return formatText("%@(%d)", processName_, pid_); }

QXProcessInfo::~QXProcessInfo() {
    quorvixLog().debug("dealloc for %@", processName_);
    if (shmem_region) {
        platform().regions.unmap(shmem_region, shmem_length);
        shmem_region = nullptr;
    }
}

}  // namespace quorvix
