#include "swivex/ProcessList.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>

#include "swivex/Descriptor.h"
#include "swivex/ProcessText.h"
#include "swivex/SmallFile.h"

namespace quorvix::swivex {

namespace {

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

// The numbers among a folder's names, in order.
std::vector<pid_t> numbersIn(int parent, const char* path) {
    std::vector<pid_t> numbers;
    const int opened = ::openat(parent, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (opened < 0) return numbers;
    const Folder folder(::fdopendir(opened), &::closedir);
    if (!folder) {
        ::close(opened);
        return numbers;
    }
    while (const dirent* const entry = ::readdir(folder.get())) {
        pid_t number = 0;
        const char* const end = entry->d_name + std::strlen(entry->d_name);
        const auto parsed = std::from_chars(entry->d_name, end, number);
        if (parsed.ec == std::errc() && parsed.ptr == end && number > 0) numbers.push_back(number);
    }
    std::ranges::sort(numbers);
    return numbers;
}

// Reads one process after the other, with buffers that are kept.
class Reader {
public:
    explicit Reader(int proc) : proc_(proc) {}

    // False: it is gone.
    bool read(pid_t pid, ProcessEntry& process, const Deadline& deadline) {
        const std::string base = std::to_string(pid);
        if (!readFile(base + "/stat")) return false;
        const auto stat = parseStat(text_);
        if (!stat) return false;
        process.pid = pid;
        process.ppid = stat->ppid;
        process.name = stat->comm;
        process.isKernel = stat->isKernelThread();
        process.startNs = stat->startTicks * nsPerTick_;
        process.userNs = stat->userTicks * nsPerTick_;
        process.kernelNs = stat->kernelTicks * nsPerTick_;
        if (readFile(base + "/status")) readStatus(process);
        if (!process.isKernel && readFile(base + "/oom_score_adj")) {
            process.oomScoreAdj = scoreAdjustmentOf(text_).value_or(0);
        }
        readThreads(base, stat->threads, process, deadline);
        return true;
    }

private:
    bool readFile(const std::string& path) { return readSmallFileInto(proc_, path.c_str(), text_); }

    std::uint64_t kilobytes(std::string_view key) const {
        const auto numbers = numbersOf(text_, key);
        return numbers.empty() ? 0 : numbers.front();
    }

    std::vector<pid_t> innerIds() const {
        std::vector<pid_t> ids;
        const auto numbers = numbersOf(text_, "NSpid");
        for (std::size_t index = 1; index < numbers.size(); ++index) ids.push_back(static_cast<pid_t>(numbers[index]));
        return ids;
    }

    void readStatus(ProcessEntry& process) {
        if (const auto uids = numbersOf(text_, "Uid"); !uids.empty()) process.uid = static_cast<std::uint32_t>(uids[0]);
        process.namespacePids = innerIds();
        process.hasMemory = !numbersOf(text_, "VmSize").empty();
        if (!process.hasMemory) return;
        process.sizeKb = kilobytes("VmSize");
        process.residentKb = kilobytes("VmRSS");
        process.anonymousKb = kilobytes("RssAnon");
        process.fileKb = kilobytes("RssFile");
        process.sharedKb = kilobytes("RssShmem");
        process.swapKb = kilobytes("VmSwap");
        process.lockedKb = kilobytes("VmLck");
        process.peakKb = kilobytes("VmHWM");
    }

    void readThreads(const std::string& base, std::uint64_t count, ProcessEntry& process, const Deadline& deadline) {
        process.threads.push_back({process.pid, process.name, process.namespacePids});
        if (count <= 1) return;
        const std::string folder = base + "/task";
        for (const pid_t tid : numbersIn(proc_, folder.c_str())) {
            if (tid == process.pid) continue;
            if (deadline.passed()) return;
            ThreadEntry thread;
            thread.tid = tid;
            const std::string path = folder + "/" + std::to_string(tid);
            if (!readFile(path + "/comm")) continue;
            thread.name = text_.substr(0, text_.find_last_not_of('\n') + 1);
            if (!process.namespacePids.empty() && readFile(path + "/status")) thread.namespaceTids = innerIds();
            process.threads.push_back(std::move(thread));
        }
    }

    const int proc_;
    const std::uint64_t nsPerTick_ = 1'000'000'000 / static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    std::string text_;
};

}  // namespace

ProcessList listProcesses(const std::string& procFolder, pid_t first, const Deadline& deadline) {
    ProcessList list;
    const Descriptor proc(::open(procFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!proc) {
        list.problem = errorText(procFolder, errno);
        return list;
    }
    std::vector<pid_t> pids = numbersIn(proc.get(), ".");
    if (const auto place = std::ranges::find(pids, first); place != pids.end()) {
        std::rotate(pids.begin(), place, place + 1);
    }
    Reader reader(proc.get());
    list.processes.reserve(pids.size());
    for (const pid_t pid : pids) {
        if (deadline.passed()) {
            list.problem = "the time for it was up after " + std::to_string(list.processes.size()) + " of " +
                           std::to_string(pids.size()) + " processes";
            break;
        }
        ProcessEntry process;
        if (reader.read(pid, process, deadline)) list.processes.push_back(std::move(process));
    }
    if (list.processes.empty() && list.problem.empty()) list.problem = procFolder + " lists no process";
    return list;
}

pid_t hostThread(const ProcessEntry& process, std::int64_t id) {
    for (const ThreadEntry& thread : process.threads) {
        if (!thread.namespaceTids.empty() && thread.namespaceTids.back() == id) return thread.tid;
    }
    const auto found =
        std::ranges::find_if(process.threads, [&](const ThreadEntry& thread) { return thread.tid == id; });
    return found == process.threads.end() ? 0 : found->tid;
}

}  // namespace quorvix::swivex
