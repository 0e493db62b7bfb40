#include "platform/linux/ProcessSamples.h"

#include <algorithm>

#include "platform/linux/ProcfsText.h"

namespace quorvix::linuxos {

namespace {

bool byPid(const ProcessSample& left, const ProcessSample& right) { return left.pid < right.pid; }
bool byThreadId(const ThreadSample& left, const ThreadSample& right) { return left.tid < right.tid; }

}  // namespace

void ProcessSamples::sort() {
    for (const ProcessSample& process : processes) {
        const auto first = threads.begin() + process.firstThread;
        const auto last = first + process.threadCount;
        if (!std::is_sorted(first, last, byThreadId)) std::sort(first, last, byThreadId);
    }
    // Process ids are given out in order and start again from below once in a while.
    if (!std::is_sorted(processes.begin(), processes.end(), byPid)) {
        std::sort(processes.begin(), processes.end(), byPid);
    }
}

void setProcessName(ProcessSample& process, std::string_view comm) {
    const std::size_t length = std::min(comm.size(), process.name.size() - 1);
    std::copy_n(comm.begin(), length, process.name.begin());
    std::fill(process.name.begin() + static_cast<std::ptrdiff_t>(length), process.name.end(), '\0');
}

bool mayBeCut(std::string_view comm) { return comm.size() == kCommLength; }

void completeProcessName(ProcessSample& process, std::string_view comm, std::string_view executablePath) {
    if (executablePath.ends_with(kDeletedMark)) executablePath.remove_suffix(kDeletedMark.size());
    const std::string_view name = executablePath.substr(executablePath.rfind('/') + 1);
    if (mayBeCut(comm) && name.starts_with(comm)) setProcessName(process, name);
}

std::string_view kernelThreadComm(std::string_view shown) {
    constexpr std::string_view kWorker = "kworker/";
    if (shown.starts_with(kWorker)) {
        // "kworker/0:1-events": the work stands behind the number of the worker, which has a colon.
        const std::size_t colon = shown.find(':');
        if (colon != std::string_view::npos) shown = shown.substr(0, shown.find_first_of("+-", colon));
    }
    return shown.substr(0, kCommLength);
}

}  // namespace quorvix::linuxos
